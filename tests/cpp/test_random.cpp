#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "test_support.h"
#include "velmot/defs/random.h"

using Velmot::XorShiftState;

namespace {

bool same_state(const XorShiftState& a, const XorShiftState& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}

TEST(GeneratorPool, FileSeedSkipsZeroWordsTakesMagnitudesAndNamesAShortFile) {
  std::vector<int64_t> words = {0, 5, -7, 0, 9, 11};
  for (int64_t k = 1; k <= 4 * 31; ++k) words.push_back(k * 1000);
  char name[] = "/tmp/velmot_seedXXXXXX";
  FILE* out = fdopen(mkstemp(name), "wb");
  fwrite(words.data(), sizeof(int64_t), words.size(), out);
  fclose(out);
  Velmot::XorShiftRNGPool pool, short_pool;
  pool.init(name, 32);
  EXPECT_TRUE(same_state(pool.get_generator(0)->get_state(), XorShiftState{5, 7, 9, 11}));
  EXPECT_TRUE(same_state(pool.get_generator(1)->get_state(), XorShiftState{1000, 2000, 3000, 4000}));
  ASSERT_EQ(truncate(name, 6 * sizeof(int64_t)), 0);  // one generator's words
  EXPECT_EQ(VelmotTest::message_of([&] { short_pool.init(name, 2); }),
            "unable to read from random number file " + std::string(name));
  // The generator filled before the failure stays; the rest are null.
  EXPECT_NE(short_pool.get_generator(0), nullptr);
  EXPECT_EQ(short_pool.get_generator(1), nullptr);
  std::remove(name);
}

// Draws reduce |word| modulo the bound; the most negative word stays itself.
TEST(Generator, MagnitudeOfEveryWordAsTwosComplement) {
  using Velmot::XorShiftRNG;
  const int64_t lowest = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(XorShiftRNG::magnitude(-7), 7);
  EXPECT_EQ(XorShiftRNG::magnitude(7), 7);
  EXPECT_EQ(XorShiftRNG::magnitude(0), 0);
  EXPECT_EQ(XorShiftRNG::magnitude(lowest + 1), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(XorShiftRNG::magnitude(lowest), lowest);
}

// The root is deliberately not a std::exception.
static_assert(!std::is_base_of<std::exception, Velmot::Exception>::value);

}  // namespace
