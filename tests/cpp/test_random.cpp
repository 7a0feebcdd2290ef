#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "test_support.h"
#include "velmot/defs/random.h"

using Velmot::XorShiftRNG;
using Velmot::XorShiftState;

namespace {

bool same_state(const XorShiftState& a, const XorShiftState& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}

std::string temp_file_with(const std::vector<int64_t>& words) {
  char name[] = "/tmp/velmot_seedXXXXXX";
  FILE* out = fdopen(mkstemp(name), "wb");
  fwrite(words.data(), sizeof(int64_t), words.size(), out);
  fclose(out);
  return name;
}

}  // namespace

TEST(XorShiftRNG, StepMixesAllFourWordsWithArithmeticRightAndTruncatingLeftShifts) {
  XorShiftRNG rng(XorShiftState{1, 2, 3, 4});
  EXPECT_EQ(rng.next_int(), 403701764);
  EXPECT_TRUE(same_state(rng.get_state(), XorShiftState{2, 3, 4, 403701764}));
  // A logical shift of -1024 by 11 would leave high bits set in the result.
  EXPECT_EQ(XorShiftRNG(XorShiftState{0, -1024, 0, 0}).next_int(), 1023);
  EXPECT_EQ(XorShiftRNG(XorShiftState{0, 0, 0, -64}).next_int(), 63);
  // x << 20 overflows out of the word entirely, leaving x itself.
  const int64_t x = int64_t{1} << 50;
  EXPECT_EQ(XorShiftRNG(XorShiftState{x, 0, 0, 0}).next_int(), x);
  const int64_t most_negative = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(XorShiftRNG::magnitude(most_negative), most_negative);
  EXPECT_EQ(XorShiftRNG::magnitude(-5), 5);
  std::ostringstream out;
  out << XorShiftRNG(XorShiftState{1, 2, 3, 4});
  EXPECT_EQ(out.str(), "{x=1 y=2 z=3 w=4}");
}

TEST(GeneratorPool, SameSeedGivesSameStatesAndExistingPoolIgnoresNewArguments) {
  Velmot::init_pool("", 77);
  Velmot::XorShiftRNGPool* pool = Velmot::get_pool("", 1, 0, false);
  std::vector<XorShiftState> first;
  for (size_t i = 0; i < pool->size(); ++i) first.push_back(pool->get_generator(i)->get_state());
  // Without reinit the seed and size are ignored.
  EXPECT_EQ(Velmot::get_pool("", 3, 999, false), pool);
  EXPECT_EQ(pool->size(), 32u);
  pool->get_generator(0)->next_int();
  Velmot::init_pool("", 77);
  for (size_t i = 0; i < pool->size(); ++i) EXPECT_TRUE(same_state(pool->get_generator(i)->get_state(), first[i]));
}

TEST(GeneratorPool, FileSeedSkipsZeroWordsTakesMagnitudesAndNamesAShortFile) {
  std::vector<int64_t> words = {0, 5, -7, 0, 9, 11};
  for (int64_t k = 1; k <= 4 * 31; ++k) words.push_back(k * 1000);
  std::string path = temp_file_with(words);
  Velmot::XorShiftRNGPool pool;
  pool.init(path, 32);
  EXPECT_TRUE(same_state(pool.get_generator(0)->get_state(), XorShiftState{5, 7, 9, 11}));
  EXPECT_TRUE(same_state(pool.get_generator(1)->get_state(), XorShiftState{1000, 2000, 3000, 4000}));
  std::remove(path.c_str());

  path = temp_file_with({1, 2, 3, 4, 5});
  Velmot::XorShiftRNGPool short_pool, missing, device;
  EXPECT_EQ(VelmotTest::message_of([&] { short_pool.init(path, 2); }),
            "unable to read from random number file " + path);
  // The generator filled before the failure stays; the rest are null.
  EXPECT_NE(short_pool.get_generator(0), nullptr);
  EXPECT_EQ(short_pool.get_generator(1), nullptr);
  std::remove(path.c_str());
  EXPECT_EQ(VelmotTest::message_of([&] { missing.init("/no/such/file", 1); }),
            "unable to read from random number file /no/such/file");
  EXPECT_EQ(VelmotTest::message_of([&] { device.init("", 4); }), "");  // "" reads /dev/urandom
}

// The root is deliberately not a std::exception (exception.h).
static_assert(!std::is_base_of<std::exception, Velmot::Exception>::value);
static_assert(std::is_base_of<Velmot::Exception, Velmot::DataIOException>::value &&
              std::is_base_of<Velmot::Exception, Velmot::FileFormatException>::value &&
              std::is_base_of<Velmot::Exception, Velmot::IncompatibleDataException>::value &&
              std::is_base_of<Velmot::Exception, Velmot::EmptyTrackerException>::value);
