#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/random.h"

using Velmot::XorShiftRNG;
using Velmot::XorShiftState;

namespace {

bool same_state(const XorShiftState& a, const XorShiftState& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z && a.w == b.w;
}

std::string temp_file_with(const std::vector<int64_t>& words) {
  char name[] = "/tmp/velmot_seedXXXXXX";
  const int fd = mkstemp(name);
  EXPECT_GE(fd, 0);
  FILE* out = fdopen(fd, "wb");
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
}

TEST(XorShiftRNG, MagnitudeOfMostNegativeWordStaysNegative) {
  const int64_t most_negative = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(XorShiftRNG::magnitude(most_negative), most_negative);
  EXPECT_EQ(XorShiftRNG::magnitude(-5), 5);
}

TEST(XorShiftRNG, PrintsItsState) {
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
  EXPECT_TRUE(same_state(pool->get_generator(5)->get_state(), first[5]));

  pool->get_generator(0)->next_int();
  Velmot::init_pool("", 77);
  for (size_t i = 0; i < pool->size(); ++i) EXPECT_TRUE(same_state(pool->get_generator(i)->get_state(), first[i]));
}

TEST(GeneratorPool, FileSeedSkipsZeroWordsAndTakesMagnitudes) {
  std::vector<int64_t> words = {0, 5, -7, 0, 9, 11};
  for (int64_t k = 1; k <= 4 * 31; ++k) words.push_back(k * 1000);
  const std::string path = temp_file_with(words);
  Velmot::XorShiftRNGPool pool;
  pool.init(path, 32);
  EXPECT_TRUE(same_state(pool.get_generator(0)->get_state(), XorShiftState{5, 7, 9, 11}));
  EXPECT_TRUE(same_state(pool.get_generator(1)->get_state(), XorShiftState{1000, 2000, 3000, 4000}));
  std::remove(path.c_str());
}

TEST(GeneratorPool, ShortOrMissingFileThrowsWithTheNameAsPassed) {
  auto init_failure = [](Velmot::XorShiftRNGPool& pool, const std::string& path, size_t size) {
    try {
      pool.init(path, size);
    } catch (const Velmot::Exception& e) {
      return e.get_message();
    }
    return std::string("<no exception>");
  };
  const std::string path = temp_file_with({1, 2, 3, 4, 5});
  Velmot::XorShiftRNGPool pool;
  EXPECT_EQ(init_failure(pool, path, 2), "unable to read from random number file " + path);
  // The generator filled before the failure stays; the rest are null.
  EXPECT_NE(pool.get_generator(0), nullptr);
  EXPECT_EQ(pool.get_generator(1), nullptr);
  std::remove(path.c_str());
  Velmot::XorShiftRNGPool other;
  EXPECT_EQ(init_failure(other, "/no/such/file", 1), "unable to read from random number file /no/such/file");
}

TEST(GeneratorPool, EmptyNameReadsUrandom) {
  Velmot::XorShiftRNGPool pool;
  pool.init("", 4);
  for (size_t i = 0; i < 4; ++i) {
    const XorShiftState& s = pool.get_generator(i)->get_state();
    EXPECT_TRUE(s.x != 0 && s.y != 0 && s.z != 0 && s.w != 0);
  }
}

TEST(Exceptions, HierarchyAndMessages) {
  EXPECT_EQ(Velmot::Exception().get_message(), "");
  const Velmot::DataIOException io(-1, "not all tokens used");
  EXPECT_EQ(io.get_line_no(), -1);
  EXPECT_EQ(io.get_message(), "not all tokens used");
  auto caught_as_library = [](auto thrower) {
    try {
      thrower();
    } catch (const std::exception&) {
      return false;
    } catch (const Velmot::Exception&) {
      return true;
    }
    return false;
  };
  EXPECT_TRUE(caught_as_library([] { throw Velmot::FileFormatException("x"); }));
  EXPECT_TRUE(caught_as_library([] { throw Velmot::IncompatibleDataException("x"); }));
  EXPECT_TRUE(caught_as_library([] { throw Velmot::EmptyTrackerException(); }));
  EXPECT_TRUE(caught_as_library([] { throw Velmot::DataIOException(3, "x"); }));
}
