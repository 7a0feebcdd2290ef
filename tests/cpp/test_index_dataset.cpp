#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/dataset.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/dataset/partition.h"
#include "velmot/dataset/sorted_feature.h"
#include "velmot/defs/random.h"

namespace {

using VelmotTest::all_of;
using VelmotTest::message_of;

template <class F, class L>
Velmot::MemoryDataSet<F, L> one_feature(const std::vector<F>& values, const std::vector<L>& labels) {
  return VelmotTest::columns<F, L>({values}, labels);
}

TEST(IndexedDataSet, BufferingRefreshesOnlyTheRangeAndSortsOnlyTheBufferedFeature) {
  const auto data = VelmotTest::columns<int, int>({{10, 20, 30, 40}, {1, 2, 3, 4}}, {0, 1, 0, 1});
  auto indexed = all_of(data);
  indexed.indices = {3, 0, 0, 2};
  indexed.buffer_feature(0, 1, 3);
  EXPECT_EQ(indexed.get_buffered_feature_label(1), std::make_pair(10, 0));
  EXPECT_EQ(indexed.get_buffered_feature_label(2), std::make_pair(10, 0));
  EXPECT_EQ(indexed.get_buffered_feature_label(0), std::make_pair(0, 0));  // untouched
  EXPECT_EQ(message_of([&] { indexed.sort_buffered_feature(1, 1, 3); }), "feature not in buffer");
}

// The value sort of integer features counts when 2 max(n, cells) <= n log2 n
// (cells: value range times label range), else compares; either way the
// pairs come out as std::sort orders them (labels as `sorted_labels`).
TEST(IndexedDataSet, ValueSortCountsOnlyWhereItIsCheaper) {
  auto expect_value_sort = [](const auto& values, const auto& labels, size_t cells, const auto& sorted_labels) {
    using F = typename std::decay_t<decltype(values)>::value_type;
    using L = typename std::decay_t<decltype(labels)>::value_type;
    std::vector<std::pair<F, L>> expected;
    for (size_t i = 0; i < values.size(); ++i) expected.emplace_back(values[i], sorted_labels[i]);
    std::sort(expected.begin(), expected.end());
    const auto data = one_feature(values, labels);
    auto indexed = all_of(data);
    indexed.buffer_feature(0, 0, values.size());
    indexed.sort_buffered_feature(0, 0, values.size());
    const std::vector<std::pair<F, L>> sorted(indexed.buffered_pairs(0), indexed.buffered_pairs(values.size()));
    EXPECT_EQ(sorted, expected);
    EXPECT_EQ(indexed.flexi_sort.counts.empty(), cells == 0);
    EXPECT_GE(indexed.flexi_sort.counts.size(), cells);
  };
  // Cells 3 x 2 = 6; 2 x 6 = 12 > 4 log2 4 = 8: compared.
  const std::vector<int> four_labels = {1, 0, 0, 1};
  expect_value_sort(std::vector<unsigned char>{3, 1, 3, 2}, four_labels, 0, four_labels);
  // n = 16: n log2 n = 64. Values 0..31 with one label: cells 32, 2 x 32 =
  // 64 <= 64 counts; values 0..32 (cells 33) do not.
  for (const int top : {31, 32}) {
    std::vector<int> values;
    for (int i = 0; i < 16; ++i) values.push_back(i == 15 ? top : 14 - i);
    expect_value_sort(values, std::vector<int>(16, 0), top == 31 ? 32 : 0, std::vector<int>(16, 0));
  }
  // Values 0..3 over 64 instances, real labels 0.5 and 2.7: label range 3,
  // 12 cells, counted, and 2.7 comes back on the grid from 0.5 as 1.5.
  std::vector<int> few;
  std::vector<double> real, on_grid;
  for (int i = 0; i < 64; ++i) {
    few.push_back(i % 4);
    real.push_back(i % 3 == 0 ? 2.7 : 0.5);
    on_grid.push_back(i % 3 == 0 ? 1.5 : 0.5);
  }
  expect_value_sort(few, real, 12, on_grid);
}

// Labels that follow the positions stay with their instances through every
// partition, and partition reorders the index list exactly as without them.
TEST(IndexedDataSet, FollowedLabelsStayWithTheirInstances) {
  Velmot::MemoryDataSet<double, int> data(1);
  data.nc = 5;
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{4, 5, 6, 7});
  for (size_t i = 0; i < 500; ++i) {
    data.features[0].push_back(static_cast<double>(gen.next_int(40)));
    data.labels.push_back(static_cast<int>(gen.next_int(5)));
  }
  Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, int>> plain(&data);
  for (size_t i = 0; i < 700; ++i) plain.add_index(static_cast<uint64_t>(gen.next_int(500)));
  auto following = plain;
  following.follow_labels();
  // Split the list as a tree would: halves of halves, at varied thresholds.
  std::vector<std::pair<size_t, size_t>> ranges{{0, 700}};
  for (size_t k = 0; k < ranges.size() && k < 60; ++k) {
    const auto [begin, end] = ranges[k];
    if (end - begin < 4) continue;
    const double threshold = static_cast<double>(gen.next_int(40)) + 0.5 * static_cast<double>(k % 2);
    const size_t left = following.partition(0, begin, end, threshold);
    ASSERT_EQ(left, plain.partition(0, begin, end, threshold));
    ASSERT_EQ(following.indices, plain.indices);
    ranges.emplace_back(begin, begin + left);
    ranges.emplace_back(begin + left, end);
  }
  for (size_t p = 0; p < 700; ++p) {
    ASSERT_EQ(following.get_label(p), data.get_label(following.indices[p]));
    ASSERT_EQ(following.position_labels[p], data.get_label(following.indices[p]));
  }
  // Changing the list another way stops the following.
  following.add_index(3);
  EXPECT_FALSE(following.labels_follow);
  EXPECT_EQ(following.get_label(700), data.get_label(3));
}

// Partitions send the values below the threshold first, NaN last, and
// move only their range; each part keeps its positions in order, and by
// rank they split alike given the first rank going right.
TEST(IndexedDataSet, PartitionsSendValuesBelowTheThresholdFirst) {
  const double nan = std::nan("");
  const auto data = VelmotTest::columns<double, int>({{3, 1, 2.5, 2, nan, 0.5}, {3, 1, 2.5, 2, 7, 0.5}},
                                                     {0, 1, 0, 1, 0, 1});
  auto partial = all_of(data);
  EXPECT_EQ(partial.partition(0, 1, 3, 2.0), 1u);
  EXPECT_EQ(partial.indices, (std::vector<uint64_t>{0, 1, 2, 3, 4, 5}));

  auto by_value = all_of(data);
  by_value.follow_labels();
  EXPECT_EQ(by_value.partition(0, 0, 6, 2.5), 3u);
  EXPECT_EQ(by_value.indices, (std::vector<uint64_t>{1, 3, 5, 0, 2, 4}));
  EXPECT_EQ(by_value.position_labels, (std::vector<int>{1, 1, 1, 0, 0, 0}));
  const Velmot::FeatureRanks<double> ranks(data);
  auto by_rank = all_of(data);
  // Ranks of feature 1: 0.5 -> 0, 1 -> 1, 2 -> 2, 2.5 -> 3, 3 -> 4, 7 -> 5.
  EXPECT_EQ(Velmot::partition_by_rank(by_rank, ranks, 1, 0, 6, 3), 3u);
  EXPECT_EQ(by_rank.indices, by_value.indices);

  // A range view over positions [2, 6); NaN never equals, so is never
  // homogeneous.
  using Range = Velmot::RangeDataSet<decltype(partial)>;
  const auto slice_data = one_feature<double, int>({nan, nan, 4, 4, 4, 5}, {0, 1, 0, 1, 0, 1});
  auto all = all_of(slice_data);
  EXPECT_FALSE(Range(&all, 0, 2).is_homogeneous(0));
  EXPECT_TRUE(Range(&all, 2, 5).is_homogeneous(0));
  EXPECT_FALSE(Range(&all, 4, 6).is_homogeneous(0));
  Range range(&all, 2, 6);
  EXPECT_EQ(range.get_label(1), 1);
  EXPECT_EQ(range.partition(0, 5.0), 3u);
}

template <class F, class L>
using Indexed = Velmot::IndexedDataSet<Velmot::MemoryDataSet<F, L>>;
template <class F, class L>
using Sorted = Velmot::SortedFeature<Velmot::MemoryDataSet<F, L>>;

// The (value, label) pairs of positions [begin, end) as the grower's sort
// leaves them, whichever form holds them; equal keys must mean equal values.
template <class F, class L>
std::vector<std::pair<F, L>> grower_sorted(Sorted<F, L>& sorted, const Indexed<F, L>& indexed, size_t begin,
                                           size_t end) {
  EXPECT_TRUE(sorted.sort_unless_constant(indexed, 0, begin, end));
  std::vector<std::pair<F, L>> pairs;
  sorted.search([&](const auto& input, auto point_of) {
    auto previous = input.first_key();
    auto add = [&](const auto& key, L label, uint32_t weight) {
      const F value = sorted.value_of(0, point_of(key));
      EXPECT_TRUE(pairs.empty() || (key == previous) == (value == pairs.back().first));
      pairs.insert(pairs.end(), weight, std::make_pair(value, label));
      previous = key;
    };
    add(input.first().key, input.first().label, input.first().weight);
    input.for_each_after_first(add);
    return 0;
  });
  return pairs;
}

// Every sort the grower may use (the value sorts, compared or counted; the
// packed sort of ranks or byte values, compared, bucketed, counted or by
// radix; ranks beside real labels) must leave a range's pairs as std::sort
// orders them, ascending values and equal values by label, whatever order
// the positions come in. Positions repeat and ranks are of all 20000
// instances, so a range's ranks are sparse.
template <class F, class L>
void check_grower_sort(int distinct, bool use_ranks, typename Sorted<F, L>::Form form) {
  for (const size_t n : {5u, 40u, 300u, 1500u, 6000u}) {
    SCOPED_TRACE(::testing::Message() << distinct << " values, " << n << " positions");
    Velmot::MemoryDataSet<F, L> data(1);
    data.nc = 4;
    Velmot::XorShiftRNG gen(Velmot::XorShiftState{1, 2, 3, static_cast<int64_t>(n)});
    for (size_t i = 0; i < 20000; ++i) {
      F value = static_cast<F>(gen.next_int(distinct));
      if constexpr (std::is_floating_point<F>::value) value = value * F(0.25) - F(7);
      data.features[0].push_back(value);
      data.labels.push_back(static_cast<L>(gen.next_int(4)));
    }
    const Velmot::FeatureRanks<F> ranks(data);
    Indexed<F, L> forwards(&data);
    if (use_ranks) forwards.ranks = &ranks;
    for (size_t i = 0; i < n + 10; ++i) forwards.add_index(static_cast<uint64_t>(gen.next_int(20000)));
    std::vector<std::pair<F, L>> expected;
    for (size_t p = 10; p < n + 10; ++p) expected.emplace_back(forwards(p, 0), forwards.get_label(p));
    std::sort(expected.begin(), expected.end());
    auto backwards = forwards;
    std::reverse(backwards.indices.begin() + 10, backwards.indices.end());
    Sorted<F, L> sorted;
    for (const auto* indexed : {&forwards, &backwards}) {
      ASSERT_EQ(grower_sorted(sorted, *indexed, 10, n + 10), expected);
      ASSERT_EQ(sorted.sorted_form(), form);
    }
  }
}

TEST(IndexedDataSet, EverySortOfTheGrowerOrdersAsStdSort) {
  check_grower_sort<double, int>(3, true, Sorted<double, int>::packed_ranks);
  check_grower_sort<double, int>(100000, true, Sorted<double, int>::packed_ranks);
  check_grower_sort<float, int>(100000, true, Sorted<float, int>::packed_ranks);
  check_grower_sort<double, double>(3, true, Sorted<double, double>::ranks_and_labels);
  check_grower_sort<double, double>(100000, true, Sorted<double, double>::ranks_and_labels);
  check_grower_sort<double, int>(9, false, Sorted<double, int>::in_buffer);
  check_grower_sort<int, int>(5, false, Sorted<int, int>::in_buffer);
  check_grower_sort<int, int>(1000000, false, Sorted<int, int>::in_buffer);
  check_grower_sort<unsigned char, int>(7, false, Sorted<unsigned char, int>::packed_values);
}

TEST(IndexedDataSet, ConstantRangesAreRefusedWhicheverWay) {
  const auto data = one_feature<double, int>({2, 2, 2, 5}, {0, 1, 0, 1});
  const Velmot::FeatureRanks<double> ranks(data);
  auto indexed = all_of(data);
  indexed.ranks = &ranks;
  Sorted<double, int> sorted;
  EXPECT_FALSE(sorted.sort_unless_constant(indexed, 0, 0, 3));
  EXPECT_TRUE(sorted.sort_unless_constant(indexed, 0, 0, 4));
  indexed.ranks = nullptr;
  EXPECT_FALSE(sorted.sort_unless_constant(indexed, 0, 0, 3));
  // Without ranks the pairs are values, and the form says so.
  EXPECT_EQ((grower_sorted<double, int>(sorted, indexed, 0, 4).back().first), 5.0);
  EXPECT_EQ(sorted.sorted_form(), (Sorted<double, int>::in_buffer));
}

// Every path of the packed sort against std::sort: comparison (small),
// buckets, buckets overflowing on clustered keys (radix instead), dense keys
// (one counting pass) and wide keys (three radix passes); and keys with 3
// weight bits, (rank << 2 | label + 1) << 3 | weight, which sort above their
// weight bits (equal there in any order) and otherwise keep the multiset.
TEST(PackedRankSort, SortsLikeStdSortOnEveryPath) {
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{9, 8, 7, 6});
  auto draw = [&gen](uint32_t bound) { return static_cast<uint32_t>(gen.next_int(static_cast<int64_t>(bound))); };
  auto weighted = [](uint32_t rank, uint32_t slot, uint32_t weight) { return ((rank << 2 | slot) << 3) | weight; };
  struct Case {
    size_t n;
    std::function<uint32_t(size_t)> key;
    int weight_bits;
  };
  const std::vector<Case> cases = {
      {50, [&](size_t) { return draw(1u << 20); }, 0},
      {1000, [&](size_t) { return draw(1u << 20); }, 0},
      {1000, [&](size_t i) { return i == 0 ? (1u << 20) : 5000 + draw(200); }, 0},  // clustered, one outlier
      {3000, [&](size_t) { return 40 + draw(700); }, 0},                             // dense
      {20000, [&](size_t) { return draw(1u << 20); }, 0},
      {5000, [&](size_t) { return draw(0x7fffffffu) * 2 + draw(2); }, 0},            // 32-bit keys
      {30, [&](size_t) { return weighted(draw(5000), 1 + draw(3), 1 + draw(7)); }, 3},
      {3000, [&](size_t) { return weighted(draw(5000), 1 + draw(3), 1 + draw(7)); }, 3},
      {9000, [&](size_t) { return weighted(draw(5000), 1 + draw(3), 1 + draw(7)); }, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.n);
    Velmot::PackedRankSort sorter;
    sorter.prepare(c.n);
    std::vector<uint32_t> keys(c.n);
    for (size_t i = 0; i < c.n; ++i) keys[i] = c.key(i);
    std::copy(keys.begin(), keys.end(), sorter.keys());
    const uint32_t kmin = *std::min_element(keys.begin(), keys.end());
    const uint32_t kmax = *std::max_element(keys.begin(), keys.end());
    ASSERT_TRUE(sorter.sort_or_count(c.n, kmin, kmax, c.weight_bits ? 2 : 3, false, c.weight_bits));
    std::vector<uint32_t> got(sorter.sorted(), sorter.sorted() + c.n);
    std::sort(keys.begin(), keys.end());
    for (size_t i = 0; i < c.n; ++i) ASSERT_EQ(got[i] >> c.weight_bits, keys[i] >> c.weight_bits) << i;
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, keys);
  }
  // Three cells' worth of weighted keys: counted, each as its weight.
  const std::vector<uint32_t> few = {weighted(7, 1, 2), weighted(7, 3, 5), weighted(8, 1, 1),
                                     weighted(7, 1, 4), weighted(8, 1, 2), weighted(7, 2, 1)};
  Velmot::PackedRankSort sorter;
  sorter.prepare(few.size());
  std::copy(few.begin(), few.end(), sorter.keys());
  ASSERT_FALSE(sorter.sort_or_count(few.size(), *std::min_element(few.begin(), few.end()),
                                    *std::max_element(few.begin(), few.end()), 2, true, 3));
  EXPECT_EQ(sorter.cell_base(), 7u << 2);
  EXPECT_EQ(std::vector<uint32_t>(sorter.cell_counts(), sorter.cell_counts() + sorter.cell_count()),
            (std::vector<uint32_t>{0, 6, 1, 5, 0, 3}));
}

}  // namespace
