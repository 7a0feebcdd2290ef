#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/index_dataset.h"
#include "velmot/defs/random.h"

namespace {

template <class F, class L>
Velmot::MemoryDataSet<F, L> one_feature(const std::vector<F>& values, const std::vector<L>& labels) {
  Velmot::MemoryDataSet<F, L> data(1);
  data.features[0] = values;
  data.labels = labels;
  return data;
}

template <class D>
Velmot::IndexedDataSet<D> all_of(const D& data) {
  Velmot::IndexedDataSet<D> indexed(&data);
  indexed.use_all_instances();
  return indexed;
}

TEST(IndexedDataSet, SortingAnotherFeatureThanTheBufferedOneThrows) {
  Velmot::MemoryDataSet<double, int> data(4);
  for (auto& column : data.features) column = {1, 2};
  data.labels = {0, 1};
  auto indexed = all_of(data);
  indexed.buffer_feature(3, 0, 2);
  try {
    indexed.sort_buffered_feature(2, 0, 2);
    FAIL();
  } catch (const Velmot::Exception& e) {
    EXPECT_EQ(e.get_message(), "feature not in buffer");
  }
}

TEST(IndexedDataSet, BufferingRefreshesOnlyTheRange) {
  const auto data = one_feature<int, int>({10, 20, 30, 40}, {0, 1, 0, 1});
  auto indexed = all_of(data);
  indexed.indices = {3, 0, 0, 2};
  indexed.buffer_feature(0, 1, 3);
  EXPECT_EQ(indexed.get_buffered_feature_label(1), std::make_pair(10, 0));
  EXPECT_EQ(indexed.get_buffered_feature_label(2), std::make_pair(10, 0));
  EXPECT_EQ(indexed.get_buffered_feature_label(0), std::make_pair(0, 0));  // untouched
  EXPECT_EQ(indexed(0, 0), 40);
  EXPECT_EQ(indexed.get_label(3), 0);
}

TEST(IndexedDataSet, SmallByteRangeUsesTheComparisonSort) {
  // cells 3 x 2 = 6; 2 x 6 = 12 > 4 log2 4 = 8: comparison sort, no workspace.
  const auto data = one_feature<unsigned char, int>({3, 1, 3, 2}, {1, 0, 0, 1});
  auto indexed = all_of(data);
  indexed.buffer_feature(0, 0, 4);
  indexed.sort_buffered_feature(0, 0, 4);
  EXPECT_TRUE(indexed.flexi_sort.counts.empty());
  std::vector<unsigned char> values;
  for (size_t i = 0; i < 4; ++i) values.push_back(indexed.get_buffered_feature_label(i).first);
  EXPECT_EQ(values, (std::vector<unsigned char>{1, 2, 3, 3}));
  EXPECT_EQ(indexed.get_buffered_feature_label(0).second, 0);
  EXPECT_EQ(indexed.get_buffered_feature_label(1).second, 1);
}

TEST(IndexedDataSet, CountingSortOrdersEqualValuesByLabel) {
  std::vector<unsigned char> values;
  std::vector<int> labels;
  for (int i = 0; i < 1000; ++i) {
    values.push_back(static_cast<unsigned char>((i * 7) % 10));
    labels.push_back((i * 13 + i / 10) % 2);
  }
  const auto data = one_feature(values, labels);
  auto indexed = all_of(data);
  indexed.buffer_feature(0, 0, 1000);
  indexed.sort_buffered_feature(0, 0, 1000);
  EXPECT_GE(indexed.flexi_sort.counts.size(), 20u);
  std::vector<std::pair<unsigned char, int>> expected;
  for (size_t i = 0; i < 1000; ++i) expected.emplace_back(values[i], labels[i]);
  std::sort(expected.begin(), expected.end());
  for (size_t i = 0; i < 1000; ++i) ASSERT_EQ(indexed.get_buffered_feature_label(i), expected[i]) << i;
  // The workspace is kept and reused: a second sort does not shrink it.
  const size_t workspace = indexed.flexi_sort.counts.size();
  indexed.buffer_feature(0, 0, 500);
  indexed.sort_buffered_feature(0, 0, 500);
  EXPECT_EQ(indexed.flexi_sort.counts.size(), workspace);
}

TEST(IndexedDataSet, CountingSortChoiceRuleAtItsBoundary) {
  // n = 16: n log2 n = 64. Values 0..31 with one label: cells 32, 2 x 32 = 64
  // <= 64 counts; values 0..32 (cells 33) do not.
  for (const int top : {31, 32}) {
    std::vector<int> values, labels(16, 0);
    for (int i = 0; i < 16; ++i) values.push_back(i == 15 ? top : 14 - i);
    const auto data = one_feature(values, labels);
    auto indexed = all_of(data);
    indexed.buffer_feature(0, 0, 16);
    indexed.sort_buffered_feature(0, 0, 16);
    EXPECT_EQ(indexed.flexi_sort.counts.empty(), top == 32) << top;
    EXPECT_EQ(indexed.get_buffered_feature_label(15).first, top);
  }
}

TEST(IndexedDataSet, CountingSortMovesRealLabelsOntoItsGrid) {
  // 64 instances, values 0..3, labels 0.5 and 2.7: lr = 3, cells 12, chosen.
  std::vector<int> values;
  std::vector<double> labels;
  for (int i = 0; i < 64; ++i) {
    values.push_back(i % 4);
    labels.push_back(i % 3 == 0 ? 2.7 : 0.5);
  }
  const auto data = one_feature(values, labels);
  auto indexed = all_of(data);
  indexed.buffer_feature(0, 0, 64);
  indexed.sort_buffered_feature(0, 0, 64);
  ASSERT_FALSE(indexed.flexi_sort.counts.empty());
  int moved = 0;
  for (size_t i = 0; i < 64; ++i) {
    const double label = indexed.get_buffered_feature_label(i).second;
    EXPECT_TRUE(label == 0.5 || label == 1.5) << label;
    moved += label == 1.5;
  }
  EXPECT_EQ(moved, 22);
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

TEST(IndexedDataSet, PartitionSendsValuesBelowTheThresholdFirst) {
  const auto data = one_feature<double, int>({3, 1, 2.5, 2, std::nan("")}, {0, 0, 0, 0, 0});
  auto indexed = all_of(data);
  EXPECT_EQ(indexed.partition(0, 0, 5, 2.5), 2u);
  std::vector<double> front{data(indexed.indices[0], 0), data(indexed.indices[1], 0)};
  std::sort(front.begin(), front.end());
  EXPECT_EQ(front, (std::vector<double>{1, 2}));
  std::vector<uint64_t> all(indexed.indices);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<uint64_t>{0, 1, 2, 3, 4}));

  // Only the given range moves.
  auto partial = all_of(data);
  EXPECT_EQ(partial.partition(0, 1, 3, 2.0), 1u);
  EXPECT_EQ(partial.indices[0], 0u);
  EXPECT_EQ(partial.indices[3], 3u);
}

TEST(RangeDataSet, ViewsItsSliceAndTestsHomogeneity) {
  const double nan = std::nan("");
  const auto data = one_feature<double, int>({nan, nan, 4, 4, 4, 5}, {0, 1, 0, 1, 0, 1});
  auto indexed = all_of(data);
  using Range = Velmot::RangeDataSet<decltype(indexed)>;
  EXPECT_FALSE(Range(&indexed, 0, 2).is_homogeneous(0));  // NaN never equals
  EXPECT_TRUE(Range(&indexed, 2, 5).is_homogeneous(0));
  EXPECT_TRUE(Range(&indexed, 5, 6).is_homogeneous(0));
  EXPECT_FALSE(Range(&indexed, 4, 6).is_homogeneous(0));

  Range range(&indexed, 2, 6);
  EXPECT_EQ(range.get_num_instances(), 4u);
  EXPECT_EQ(range(3, 0), 5.0);
  EXPECT_EQ(range.get_label(1), 1);
  EXPECT_EQ(range.get_parent_index(1), 3);
  range.buffer_feature(0);
  range.sort_buffered_feature(0);
  EXPECT_EQ(range.get_buffered_feature_label(3).first, 5.0);
  EXPECT_EQ(range.partition(0, 5.0), 3u);
}

// The rank sorts used by the forest (packed keys for integer labels, ranks
// beside labels for real ones) and the value sort leave the same pairs:
// ascending values, equal values by ascending label, whatever order the
// positions came in. Sizes cover the small, counting and radix paths.
template <class L>
void check_rank_sort_matches_value_sort(typename Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, L>>::SortedForm
                                            expected_form) {
  typedef Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, L>> Indexed;
  for (const size_t n : {5u, 100u, 1500u, 6000u}) {
    for (const int distinct : {3, 100000}) {
      Velmot::MemoryDataSet<double, L> data(1);
      data.nc = 3;
      Velmot::XorShiftRNG gen(Velmot::XorShiftState{1, 2, 3, static_cast<int64_t>(n)});
      for (size_t i = 0; i < 20000; ++i) {
        data.features[0].push_back(static_cast<double>(gen.next_int(distinct)) * 0.25 - 7);
        data.labels.push_back(static_cast<L>(gen.next_int(3)));
      }
      const Velmot::FeatureRanks<double> ranks(data);
      Indexed by_value(&data);
      for (size_t i = 0; i < n + 10; ++i) by_value.add_index(static_cast<uint64_t>(gen.next_int(20000)));
      auto by_rank = by_value;
      by_rank.ranks = &ranks;
      ASSERT_TRUE(by_rank.buffer_sorted_feature_unless_constant(0, 10, n + 10));
      ASSERT_EQ(by_rank.sorted_form(), expected_form);
      by_value.buffer_feature(0, 10, n + 10);
      by_value.sort_buffered_feature(0, 10, n + 10);
      const double* value_of_rank = by_rank.sorted_values();
      for (size_t i = 0; i < n; ++i) {
        const auto& expected = by_value.get_buffered_feature_label(10 + i);
        ASSERT_EQ(value_of_rank[by_rank.sorted_rank(i)], expected.first) << n << " " << i;
        ASSERT_EQ(by_rank.sorted_label(i), expected.second) << n << " " << i;
        if (i > 0) {
          const auto& before = by_value.get_buffered_feature_label(9 + i);
          // Ranks are equal exactly when values are; equal values by label.
          ASSERT_EQ(by_rank.sorted_rank(i) == by_rank.sorted_rank(i - 1), expected.first == before.first);
          ASSERT_TRUE(before.first < expected.first || (before.first == expected.first && before.second <= expected.second));
        }
      }
    }
  }
}

TEST(IndexedDataSet, RankSortMatchesTheValueSort) {
  typedef Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, int>> IntLabels;
  typedef Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, double>> RealLabels;
  check_rank_sort_matches_value_sort<int>(IntLabels::packed_ranks);
  check_rank_sort_matches_value_sort<double>(RealLabels::ranks_and_labels);

  // Constant on the range: refused, whichever way.
  const auto data = one_feature<double, int>({2, 2, 2, 5}, {0, 1, 0, 1});
  const Velmot::FeatureRanks<double> ranks(data);
  auto indexed = all_of(data);
  indexed.ranks = &ranks;
  EXPECT_FALSE(indexed.buffer_sorted_feature_unless_constant(0, 0, 3));
  EXPECT_TRUE(indexed.buffer_sorted_feature_unless_constant(0, 0, 4));
  indexed.ranks = nullptr;
  EXPECT_FALSE(indexed.buffer_sorted_feature_unless_constant(0, 0, 3));
  // Without ranks the pairs are in the buffer, and the form says so.
  EXPECT_TRUE(indexed.buffer_sorted_feature_unless_constant(0, 0, 4));
  EXPECT_EQ(indexed.sorted_form(), decltype(indexed)::in_buffer);
  EXPECT_EQ(indexed.get_buffered_feature_label(3).first, 5.0);
}

}  // namespace

namespace {

// The sorted (value, label) pairs a range leaves, whichever form holds them.
template <class F, class L>
std::vector<std::pair<F, L>> sorted_pairs(Velmot::IndexedDataSet<Velmot::MemoryDataSet<F, L>>& indexed, size_t n) {
  std::vector<std::pair<F, L>> pairs;
  for (size_t i = 0; i < n; ++i) {
    if (indexed.sorted_form() == indexed.in_buffer) {
      pairs.push_back(indexed.get_buffered_feature_label(i));
    } else {
      pairs.emplace_back(indexed.sorted_values()[indexed.sorted_rank(i)], indexed.sorted_label(i));
    }
  }
  return pairs;
}

// The grower keeps its positions in whatever order gathers fastest, so the
// sort must not depend on it: a range and the same range reversed sort
// alike, for every sort (small and large integer ranges, counting and
// comparison; values and ranks, small and radix sizes).
template <class F>
void check_sort_ignores_position_order(int value_range, bool use_ranks) {
  for (const size_t n : {40u, 300u, 5000u}) {
    Velmot::MemoryDataSet<F, int> data(1);
    data.nc = 4;
    Velmot::XorShiftRNG gen(Velmot::XorShiftState{5, 6, 7, static_cast<int64_t>(n)});
    for (size_t i = 0; i < n; ++i) {
      data.features[0].push_back(static_cast<F>(gen.next_int(value_range)));
      data.labels.push_back(static_cast<int>(gen.next_int(4)));
    }
    const Velmot::FeatureRanks<F> ranks(data);
    auto forwards = all_of(data);
    auto backwards = all_of(data);
    std::reverse(backwards.indices.begin(), backwards.indices.end());
    forwards.ranks = backwards.ranks = use_ranks ? &ranks : nullptr;
    ASSERT_TRUE(forwards.buffer_sorted_feature_unless_constant(0, 0, n));
    ASSERT_TRUE(backwards.buffer_sorted_feature_unless_constant(0, 0, n));
    const auto expected = sorted_pairs(forwards, n);
    ASSERT_EQ(sorted_pairs(backwards, n), expected) << value_range << " " << n;
    ASSERT_TRUE(std::is_sorted(expected.begin(), expected.end())) << value_range << " " << n;
  }
}

TEST(IndexedDataSet, SortedPairsDoNotDependOnPositionOrder) {
  check_sort_ignores_position_order<int>(5, false);
  check_sort_ignores_position_order<int>(1000000, false);
  check_sort_ignores_position_order<unsigned char>(7, false);
  check_sort_ignores_position_order<double>(9, false);
  check_sort_ignores_position_order<double>(9, true);
  check_sort_ignores_position_order<float>(100000, true);
}

// The grower's stable partitions split exactly as partition does and keep
// each part in position order; by rank, given the first rank going right.
TEST(IndexedDataSet, PartitionKeepingOrderSplitsLikePartition) {
  const auto data = one_feature<double, int>({3, 1, 2.5, 2, 7, 0.5}, {0, 1, 0, 1, 0, 1});
  const Velmot::FeatureRanks<double> ranks(data);
  auto by_value = all_of(data);
  by_value.follow_labels();
  EXPECT_EQ(by_value.partition_keeping_order(0, 0, 6, 2.5), 3u);
  EXPECT_EQ(by_value.indices, (std::vector<uint64_t>{1, 3, 5, 0, 2, 4}));
  EXPECT_EQ(by_value.position_labels, (std::vector<int>{1, 1, 1, 0, 0, 0}));
  auto by_rank = all_of(data);
  by_rank.ranks = &ranks;
  // Ranks: 0.5 -> 0, 1 -> 1, 2 -> 2, 2.5 -> 3, 3 -> 4, 7 -> 5.
  EXPECT_EQ(by_rank.partition_by_rank_keeping_order(0, 0, 6, 3), 3u);
  EXPECT_EQ(by_rank.indices, by_value.indices);
}

}  // namespace

namespace {

// Every path of the packed sort against std::sort: comparison (small),
// buckets, buckets overflowing on clustered keys (radix instead), dense keys
// (one counting pass) and wide keys (three radix passes).
TEST(PackedRankSort, SortsLikeStdSortOnEveryPath) {
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{9, 8, 7, 6});
  auto draw = [&gen](uint32_t bound) { return static_cast<uint32_t>(gen.next_int(static_cast<int64_t>(bound))); };
  struct Case {
    size_t n;
    std::function<uint32_t(size_t)> key;
  };
  const std::vector<Case> cases = {
      {50, [&](size_t) { return draw(1u << 20); }},
      {1000, [&](size_t) { return draw(1u << 20); }},
      {1000, [&](size_t i) { return i == 0 ? (1u << 20) : 5000 + draw(200); }},  // clustered, one outlier
      {3000, [&](size_t) { return 40 + draw(700); }},                             // dense
      {20000, [&](size_t) { return draw(1u << 20); }},
      {5000, [&](size_t) { return draw(0x7fffffffu) * 2 + draw(2); }},            // 32-bit keys
  };
  for (const Case& c : cases) {
    Velmot::PackedRankSort sorter;
    sorter.prepare(c.n);
    std::vector<uint32_t> keys(c.n);
    for (size_t i = 0; i < c.n; ++i) keys[i] = c.key(i);
    std::copy(keys.begin(), keys.end(), sorter.keys());
    const uint32_t kmin = *std::min_element(keys.begin(), keys.end());
    const uint32_t kmax = *std::max_element(keys.begin(), keys.end());
    sorter.sort(c.n, kmin, kmax, 3);
    std::sort(keys.begin(), keys.end());
    for (size_t i = 0; i < c.n; ++i) ASSERT_EQ(sorter.sorted()[i], keys[i]) << c.n << " " << i;
  }
}

}  // namespace
