#include <gtest/gtest.h>

#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/index_dataset.h"
#include "velmot/stats/label_accumulator.h"

namespace {

using Velmot::NominalLabelPriorAccumulator;

NominalLabelPriorAccumulator<int> histogram(const std::vector<int>& class_counts) {
  NominalLabelPriorAccumulator<int> acc;
  acc.set_labeling(Velmot::DiscreteZeroOnward);
  acc.set_num_classes(static_cast<int>(class_counts.size()));
  for (size_t c = 0; c < class_counts.size(); ++c) {
    for (int k = 0; k < class_counts[c]; ++k) acc.increment_count(static_cast<int>(c));
  }
  return acc;
}

// Counts how many steps separate two generator states (up to a bound).
int draws_between(Velmot::XorShiftRNG before, const Velmot::XorShiftRNG& after) {
  for (int k = 0; k <= 64; ++k) {
    if (before.get_state().w == after.get_state().w && before.get_state().z == after.get_state().z) return k;
    before.next_int();
  }
  return -1;
}

const Velmot::XorShiftState fixed_state{11, 22, 33, 44};

TEST(LabelStatistics, EmptyHistogramHasNoImpurity) {
  const auto acc = histogram({0, 0, 0});
  EXPECT_EQ(acc.compute_gini_impurity(), 0.0);
  EXPECT_EQ(Velmot::compute_entropy(acc), 0.0);
  EXPECT_EQ(acc.get_num_slots(), 5u);
}

TEST(LabelStatistics, EntropyAndGiniOfKnownHistograms) {
  const auto three_one = histogram({3, 1});
  EXPECT_DOUBLE_EQ(Velmot::compute_entropy(three_one), 0.8112781244591328);
  EXPECT_EQ(three_one.compute_gini_impurity(), 2.5);
  EXPECT_EQ(three_one.get_sum_squared(), 10);

  const auto with_empty_class = histogram({2, 2, 0});
  EXPECT_EQ(Velmot::compute_entropy(with_empty_class), 1.0);
  EXPECT_EQ(Velmot::compute_entropy(histogram({4, 0})), 0.0);
  EXPECT_FALSE(std::signbit(Velmot::compute_entropy(histogram({4, 0, 0}))));
  EXPECT_EQ(Velmot::compute_entropy(histogram({5})), 0.0);

  auto regression = histogram({2, 2});
  regression.set_labeling(Velmot::Regression);
  EXPECT_EQ(Velmot::compute_entropy(regression), 0.0);

  EXPECT_EQ(Velmot::compute_2class_entropy(1, 1), 1.0);
  EXPECT_EQ(Velmot::special_negate(0.0), 0.0);
  EXPECT_FALSE(std::signbit(Velmot::special_negate(-0.0)));
  EXPECT_EQ(Velmot::special_log2(0.0), 0.0);
}

TEST(LabelStatistics, IncrementThenDecrementRestoresEveryMember) {
  auto acc = histogram({3, 1, 4});
  const auto before = acc;
  acc.increment_count(1);
  EXPECT_EQ(acc.get_sum_squared(), 9 + 4 + 16);
  acc.decrement_count(1);
  EXPECT_EQ(acc.get_sum_squared(), before.get_sum_squared());
  EXPECT_EQ(acc.get_total_count(), before.get_total_count());
  for (int slot = 0; slot < 5; ++slot) EXPECT_EQ(acc[slot], before[slot]);
}

TEST(LabelStatistics, ModeTakesTheLowestOfEqualCounts) {
  const auto acc = histogram({5, 5});
  EXPECT_EQ(acc.get_mode(), std::make_pair(0, int64_t{5}));
  EXPECT_EQ(histogram({1, 7, 7}).get_mode().first, 1);
}

TEST(LabelStatistics, PredictionDrawsOncePerTieVisitingEverySlot) {
  // Counts (5, 5): slots 1..3 are visited; slot 2 ties (one draw), slot 3 is
  // empty and below the maximum (no draw).
  const auto acc = histogram({5, 5});
  Velmot::XorShiftRNG rng(fixed_state);
  Velmot::XorShiftRNG replay(fixed_state);
  const auto prediction = acc.get_prediction(rng);
  EXPECT_EQ(draws_between(Velmot::XorShiftRNG(fixed_state), rng), 1);
  EXPECT_EQ(prediction.first, 0.5 > replay.next_double() ? 1 : 0);
  EXPECT_EQ(prediction.second, 5);

  // A pure histogram of label 2 among three classes: slot 2 (label 1, count
  // 0) ties the first slot's 0 and costs one draw before label 2 wins.
  Velmot::XorShiftRNG pure_rng(fixed_state);
  EXPECT_EQ(histogram({0, 0, 6}).get_prediction(pure_rng).first, 2);
  EXPECT_EQ(draws_between(Velmot::XorShiftRNG(fixed_state), pure_rng), 1);
}

TEST(LabelStatistics, AddCountTruncatesRealLabelsAndRecomputesSquares) {
  Velmot::MemoryDataSet<double, double> data(1);
  data.nc = 4;
  data.labels = {2.7, 0.2, 2.1, 3.0};
  data.features[0] = {0, 0, 0, 0};
  Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, double>> indexed(&data);
  indexed.use_all_instances();
  Velmot::RangeDataSet<decltype(indexed)> range(&indexed);
  NominalLabelPriorAccumulator<int> acc;
  acc.set_num_classes(4);
  acc.add_count(range);
  EXPECT_EQ(acc[3], 2);  // 2.7 and 2.1 count as label 2
  EXPECT_EQ(acc[1], 1);
  EXPECT_EQ(acc[4], 1);
  EXPECT_EQ(acc.get_sum_squared(), 4 + 1 + 1);
  EXPECT_EQ(acc.get_total_count(), 4u);
  EXPECT_EQ(acc.get_mode().first, 2);
}

TEST(LabelStatistics, PlusOneMinusOneUsesSlotsZeroAndTwo) {
  NominalLabelPriorAccumulator<int> acc;
  acc.set_labeling(Velmot::PlusOneMinusOne);
  acc.set_num_classes(1);
  for (int k = 0; k < 3; ++k) acc.increment_count(-1);
  acc.increment_count(1);
  EXPECT_DOUBLE_EQ(Velmot::compute_entropy(acc), 0.8112781244591328);
  EXPECT_EQ(acc.get_mode().first, -1);
}

}  // namespace
