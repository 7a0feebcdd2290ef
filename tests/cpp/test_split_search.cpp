#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/dataset/sorted_feature.h"
#include "velmot/learn/split_search.h"
#include "velmot/learn/sweep.h"
#include "velmot/stats/criteria.h"

namespace {

// Gini that records the left-side size of every boundary it scores.
struct RecordingGini : Velmot::TwoSplitGiniImpurity {
  explicit RecordingGini(std::vector<size_t>* scored) : scored(scored) {}
  template <class A>
  double operator()(double initial, const A& left, const A& right) const {
    scored->push_back(left.get_total_count());
    return Velmot::TwoSplitGiniImpurity::operator()(initial, left, right);
  }
  std::vector<size_t>* scored;
};

// Runs the split search on one feature over all instances, as the grower
// would: buffer, sort, count, search.
template <class F, class L, class Criterion>
struct OneNode {
  OneNode(const std::vector<F>& values, const std::vector<L>& labels, int num_classes) : indexed(&data) {
    data.set_num_features(1);
    data.nc = static_cast<size_t>(num_classes);
    data.features[0] = values;
    data.labels = labels;
    indexed.use_all_instances();
  }

  Velmot::Tracker<Velmot::NodeResult<F>, std::less<double>> search(const Criterion& criterion) {
    Velmot::RangeDataSet<Velmot::IndexedDataSet<Velmot::MemoryDataSet<F, L>>> range(&indexed);
    range.buffer_feature(0);
    range.sort_buffered_feature(0);
    Velmot::NominalLabelPriorAccumulator<int> counts;
    counts.set_num_classes(static_cast<int>(data.nc));
    counts.add_count(range);
    Velmot::XorShiftRNG rng(Velmot::XorShiftState{1, 2, 3, 4});
    auto result = Velmot::learn_tree_node(rng, range, counts, 0, criterion);
    EXPECT_EQ(rng.get_state().w, 4);  // the search never draws
    return result;
  }

  Velmot::MemoryDataSet<F, L> data;
  Velmot::IndexedDataSet<Velmot::MemoryDataSet<F, L>> indexed;
};

// The search's result on one feature of two classes.
template <class F, class L = int, class Criterion = Velmot::TwoSplitGiniImpurity>
auto best(const std::vector<F>& values, const std::vector<L>& labels, const Criterion& criterion = Criterion()) {
  return OneNode<F, L, Criterion>(values, labels, 2).search(criterion);
}

// Which boundaries the label-change rule lets through (by the size of
// their left side), and the threshold of the best split.
TEST(SplitSearch, LabelChangeRuleTiesAndSeeds) {
  struct Case {
    std::vector<int> values, labels;
    std::vector<size_t> scored;
    int threshold;
  };
  const Case cases[] = {
      {{1, 2, 3}, {0, 0, 1}, {2}, 3},  // only 2 | 3
      // The flag set at an equal value waits for the next distinct value.
      {{1, 1, 2}, {0, 1, 1}, {2}, 2},
      // After a scored boundary the run restarts from its right-hand label.
      {{1, 2, 3, 4, 5, 6}, {0, 1, 1, 1, 0, 0}, {1, 4}, 5},
      // Splits 1|2 and 3|4 are equally good; the first one found stays.
      {{1, 2, 3, 4}, {0, 1, 1, 0}, {1, 3}, 2},
      // A constant feature keeps the seed.
      {{7, 7, 7, 7}, {0, 1, 0, 1}, {}, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.values) + " " + ::testing::PrintToString(c.labels));
    std::vector<size_t> scored;
    const auto found = best(c.values, c.labels, RecordingGini(&scored));
    EXPECT_EQ(scored, c.scored);
    EXPECT_EQ(found.get_maximizer().threshold, c.threshold);
    EXPECT_EQ(found.get_maximizer().feature_index, 0);
  }

  // Two instances: never split by the search.
  std::vector<size_t> scored;
  const auto two = best<double>({5, 9}, {0, 1}, RecordingGini(&scored));
  EXPECT_TRUE(scored.empty());
  EXPECT_EQ(two.get_maximizer().threshold, 5.0);
  EXPECT_EQ(two.get_maximizer().best_improvement, 0.0);
  EXPECT_EQ(two.get_maximum(), 0.0);

  // Nothing to search: an empty tracker.
  const auto empty = best<double>({}, {});
  EXPECT_FALSE(empty.is_initialized());
  EXPECT_THROW(empty.get_maximizer(), Velmot::EmptyTrackerException);
}

// Thresholds by feature type (float midpoints in single precision), the
// gain ratio's pick, and real labels split by their integer parts
// (0.2 and 0.9 are one class, but different labels for the run rule).
TEST(SplitSearch, ThresholdsScoresAndRealLabels) {
  EXPECT_EQ(best<unsigned char>({1, 2, 3}, {0, 0, 1}).get_maximizer().threshold, 3);
  EXPECT_EQ(best<double>({1, 2, 3}, {0, 0, 1}).get_maximizer().threshold, 2.5);
  const float low = 0.1f, high = 0.7f;
  ASSERT_NE(static_cast<double>((low + high) * 0.5f), (static_cast<double>(low) + static_cast<double>(high)) * 0.5);
  EXPECT_EQ(best<float>({low, low, high}, {0, 0, 1}).get_maximizer().threshold, (low + high) * 0.5f);
  EXPECT_EQ(best<double>({0.1, 0.1, 0.7}, {0, 0, 1}).get_maximizer().threshold, (0.1 + 0.7) * 0.5);

  const auto r = best<double>({1, 2, 3, 4}, {1, 0, 0, 0}, Velmot::TwoSplitGainRatio());
  EXPECT_EQ(r.get_maximum(), 1.0);
  EXPECT_EQ(r.get_maximizer().threshold, 1.5);

  std::vector<size_t> scored;
  const auto found = best<double, float>({1, 2, 3, 4}, {0.2f, 0.9f, 1.5f, 1.7f}, RecordingGini(&scored));
  EXPECT_EQ(scored, (std::vector<size_t>{1, 2, 3}));
  EXPECT_EQ(found.get_maximizer().threshold, 2.5);
  EXPECT_EQ(found.get_maximum(), 2.0);
}


// The grower's sweep (best_split, with its own sides for Gini, over sorted
// keys and over a histogram of keys) reports what learn_tree_node reports:
// the final score, the threshold between the keys it keeps and the
// improvement, bit for bit, on many nodes with ties, runs of one label and
// sizes down to the seed-only 2.
template <class Criterion>
void check_light_sweep_matches_learn_tree_node(const Criterion& criterion) {
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{3, 1, 4, 1});
  for (int trial = 0; trial < 400; ++trial) {
    const size_t n = 2 + static_cast<size_t>(gen.next_int(trial < 200 ? 12 : 300));
    const int distinct = 1 + static_cast<int>(gen.next_int(trial % 2 ? 5 : 1000));
    const int classes = 2 + static_cast<int>(gen.next_int(3));
    std::vector<double> values(n);
    std::vector<int> labels(n);
    for (size_t i = 0; i < n; ++i) {
      values[i] = static_cast<double>(gen.next_int(distinct)) * 0.5;
      // Runs of one label now and then, so the label-change rule matters.
      labels[i] = (i > 0 && gen.next_int(3) == 0) ? labels[i - 1] : static_cast<int>(gen.next_int(classes));
    }
    OneNode<double, int, Criterion> node(values, labels, classes);
    const auto expected = node.search(criterion);

    Velmot::RangeDataSet<Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, int>>> range(&node.indexed);
    Velmot::NominalLabelPriorAccumulator<int> counts, left, right;
    counts.set_num_classes(classes);
    counts.add_count(range);
    const auto* pairs = range.buffered_pairs();  // still sorted by search()
    SCOPED_TRACE(trial);
    // What a light sweep found, between the keys `lower` and `upper` (as values).
    auto expect_as_searched = [&](const auto& split, double lower, double upper) {
      EXPECT_EQ(split.score, expected.get_maximum());
      EXPECT_EQ(split.where.is_seed ? lower : Velmot::ThresholdInfo<double>::get_less_than_threshold(lower, upper),
                expected.get_maximizer().threshold);
      EXPECT_EQ(std::max(split.impurity - criterion.get_impurity(counts), 0.0),
                expected.get_maximizer().best_improvement);
    };
    const auto split = Velmot::best_split(
        Velmot::sorted_keys<int>(
            n, [pairs](size_t i) { return pairs[i].first; }, [pairs](size_t i) { return pairs[i].second; },
            Velmot::UnitWeight()),
        counts, criterion.get_initial(counts), left, right, criterion);
    expect_as_searched(split, split.where.lower, split.where.upper);

    if (::testing::Test::HasFailure()) return;

    // The same from a histogram of packed (value index, label + 1) keys, as
    // the grower sweeps ranges with few distinct keys (values are k / 2).
    if (n <= 2) continue;
    const int label_bits = 3;
    std::vector<uint32_t> cells(static_cast<size_t>(distinct) << label_bits, 0);
    for (size_t i = 0; i < n; ++i) {
      ++cells[(static_cast<size_t>(values[i] * 2) << label_bits) | static_cast<size_t>(labels[i] + 1)];
    }
    const auto by_cells = Velmot::best_split(Velmot::CountedCells<int>(cells.data(), cells.size(), label_bits), counts,
                                             criterion.get_initial(counts), left, right, criterion);
    expect_as_searched(by_cells, by_cells.where.lower * 0.5, by_cells.where.upper * 0.5);
    if (::testing::Test::HasFailure()) return;
  }
}

TEST(SplitSearch, GrowersSweepMatchesLearnTreeNode) {
  check_light_sweep_matches_learn_tree_node(Velmot::TwoSplitGiniImpurity());
  check_light_sweep_matches_learn_tree_node(Velmot::TwoSplitInfoGain());
  check_light_sweep_matches_learn_tree_node(Velmot::TwoSplitGainRatio());
}

}  // namespace
