// The packed rank sort against std::sort on each of its paths; the
// sorting networks on every input of zeros and ones.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "velmot/defs/random.h"
#include "velmot/defs/sort.h"
#include "velmot/defs/sorting_network.h"

namespace {

// At most 16 keys (the sorting network), buckets, clustered keys (radix
// instead), dense keys (one counting pass), 32-bit keys (three radix
// passes), and keys with 3 weight bits, (rank << 2 | label + 1) << 3 |
// weight, which sort above their weight bits and otherwise keep the
// multiset.
TEST(PackedRankSort, SortsLikeStdSortOnEveryPath) {
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{9, 8, 7, 6});
  auto draw = [&gen](uint32_t bound) { return static_cast<uint32_t>(gen.next_int(static_cast<int64_t>(bound))); };
  auto weighted = [](uint32_t rank, uint32_t slot, uint32_t weight) { return ((rank << 2 | slot) << 3) | weight; };
  auto any_weighted = [&](size_t) { return weighted(draw(5000), 1 + draw(3), 1 + draw(7)); };
  const struct {
    size_t n;
    std::function<uint32_t(size_t)> key;
    int weight_bits;
  } cases[] = {
      {50, [&](size_t) { return draw(1u << 20); }, 0},
      {1000, [&](size_t) { return draw(1u << 20); }, 0},
      {1000, [&](size_t i) { return i == 0 ? (1u << 20) : 5000 + draw(200); }, 0},
      {3000, [&](size_t) { return 40 + draw(700); }, 0},
      {20000, [&](size_t) { return draw(1u << 20); }, 0},
      {5000, [&](size_t) { return draw(0x7fffffffu) * 2 + draw(2); }, 0},
      {11, [&](size_t) { return draw(1u << 20); }, 0},
      {16, any_weighted, 3},
      {30, any_weighted, 3},
      {3000, any_weighted, 3},
      {9000, any_weighted, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.n);
    Velmot::PackedRankSort sorter;
    sorter.prepare(c.n);
    std::vector<uint32_t> keys(c.n);
    for (size_t i = 0; i < c.n; ++i) keys[i] = c.key(i);
    std::copy(keys.begin(), keys.end(), sorter.keys());
    const auto [kmin, kmax] = std::minmax_element(keys.begin(), keys.end());
    ASSERT_TRUE(sorter.sort_or_count(c.n, *kmin, *kmax, c.weight_bits ? 2 : 3, false, c.weight_bits));
    std::vector<uint32_t> got(sorter.sorted(), sorter.sorted() + c.n);
    std::sort(keys.begin(), keys.end());
    for (size_t i = 0; i < c.n; ++i) ASSERT_EQ(got[i] >> c.weight_bits, keys[i] >> c.weight_bits) << i;
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, keys);
  }
  // Few distinct weighted keys are counted, each as its weight.
  const std::vector<uint32_t> few = {weighted(7, 1, 2), weighted(7, 3, 5), weighted(8, 1, 1),
                                     weighted(7, 1, 4), weighted(8, 1, 2), weighted(7, 2, 1)};
  Velmot::PackedRankSort sorter;
  sorter.prepare(few.size());
  std::copy(few.begin(), few.end(), sorter.keys());
  const auto [kmin, kmax] = std::minmax_element(few.begin(), few.end());
  ASSERT_FALSE(sorter.sort_or_count(few.size(), *kmin, *kmax, 2, true, 3));
  EXPECT_EQ(sorter.cell_base(), 7u << 2);
  EXPECT_EQ(std::vector<uint32_t>(sorter.cell_counts(), sorter.cell_counts() + sorter.cell_count()),
            (std::vector<uint32_t>{0, 6, 1, 5, 0, 3}));
}

// A network that sorts every sequence of zeros and ones sorts every
// sequence; the largest key stands in for one (the padding's value).
TEST(SortingNetwork, SortsEveryZeroOneInputOfEachSize) {
  for (size_t n = 1; n <= Velmot::sorting_network_max; ++n) {
    for (uint32_t bits = 0; bits < (1u << n); ++bits) {
      std::vector<uint32_t> keys(n), sorted(n);
      for (size_t i = 0; i < n; ++i) keys[i] = (bits >> i & 1) ? UINT32_MAX : 0;
      Velmot::sort_by_network(sorted.data(), keys.data(), n);
      std::sort(keys.begin(), keys.end());
      ASSERT_EQ(sorted, keys) << n << " " << bits;
    }
  }
}

}  // namespace
