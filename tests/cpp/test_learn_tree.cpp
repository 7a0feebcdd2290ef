#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/dataset.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/stats/criteria.h"

namespace {

using Data = Velmot::MemoryDataSet<int, int>;
using Indexed = Velmot::IndexedDataSet<Data>;
using Tree = std::unique_ptr<Velmot::Node<int>>;

template <class F = int, class L = int>
Velmot::MemoryDataSet<F, L> columns(const std::vector<std::vector<F>>& features, const std::vector<L>& labels,
                                    int num_classes) {
  return VelmotTest::columns<F, L>(features, labels, static_cast<size_t>(num_classes));
}
using VelmotTest::all_of;

// Seeds the pool and returns a copy of this thread's generator, to replay
// the draws the learner should make.
Velmot::XorShiftRNG seeded_replay(int seed) {
  Velmot::init_pool("", seed);
  return *Velmot::get_rng();
}

void expect_same_state(const Velmot::XorShiftRNG& a, const Velmot::XorShiftRNG& b) {
  EXPECT_EQ(a.get_state().x, b.get_state().x);
  EXPECT_EQ(a.get_state().w, b.get_state().w);
}

template <class D, class Criterion = Velmot::TwoSplitGiniImpurity>
std::unique_ptr<Velmot::Node<typename D::label_type>> learn(const Velmot::IndexedDataSet<D>& sample, int fte_per_split,
                                                            int max_depth, std::vector<double>* importances = nullptr,
                                                            int min_leaf_size = 1,
                                                            const Criterion& criterion = Criterion()) {
  std::vector<double> unused;
  return std::unique_ptr<Velmot::Node<typename D::label_type>>(
      Velmot::learn_tree(sample, fte_per_split, max_depth, min_leaf_size, criterion, importances != nullptr,
                         importances ? *importances : unused));
}

int depth_of(const Velmot::Node<int>* node) {
  if (node == nullptr) return -1;
  return 1 + std::max(depth_of(node->get_left()), depth_of(node->get_right()));
}

TEST(LearnTree, EmptyPureAndTinySamplesAreLeaves) {
  // An empty sample gives a bare node.
  const Data one_two = columns({{1, 2}}, {0, 1}, 2);
  const Tree bare = learn(Indexed(&one_two), 0, 0);
  EXPECT_TRUE(bare->is_leaf());
  EXPECT_EQ(bare->get_label(), -2);

  // A pure sample is one leaf. The empty slot of label 1 ties the empty
  // slot of label 0: one draw.
  const Data pure = columns({{1, 2, 3}}, {2, 2, 2}, 3);
  Velmot::XorShiftRNG replay = seeded_replay(17);
  const Tree leaf = learn(all_of(pure), 0, 0);
  EXPECT_TRUE(leaf->is_leaf());
  EXPECT_EQ(leaf->get_label(), 2);
  replay.next_int();
  expect_same_state(*Velmot::get_rng(), replay);

  // Two instances: the search returns its seed, nothing goes left, and the
  // leaf label is a draw between the tied labels.
  const Data two = columns({{4, 9}}, {1, 0}, 2);
  replay = seeded_replay(5);
  const Tree seed_leaf = learn(all_of(two), 0, 0);
  EXPECT_TRUE(seed_leaf->is_leaf());
  EXPECT_EQ(seed_leaf->get_label(), 0.5 > replay.next_double() ? 1 : 0);
  EXPECT_EQ(seed_leaf->get_threshold(), 4.0);  // the seed's threshold stays
  expect_same_state(*Velmot::get_rng(), replay);

  // Three instances split 2 | 1 or 1 | 2: no child may have a single
  // instance.
  for (const std::vector<int>& labels : {std::vector<int>{0, 0, 1}, std::vector<int>{0, 1, 1}}) {
    const Data three = columns({{1, 2, 3}}, labels, 2);
    std::vector<double> importances{0.0};
    const Tree node = learn(all_of(three), 0, 0, &importances);
    EXPECT_TRUE(node->is_leaf());
    EXPECT_EQ(node->get_label(), labels[1]);
    EXPECT_EQ(node->get_threshold(), labels[1] == 0 ? 3.0 : 2.0);
    EXPECT_EQ(importances[0], 1.0);  // credited although the node is a leaf
  }
}

TEST(LearnTree, RandomModeDrawsFeaturesAndBreaksTiesAsReplayed) {
  // Features 0-2 each split the labels perfectly at their own threshold;
  // feature 3 is constant (skipped, not counted). Two features per node.
  const Data data = columns({{1, 2, 3, 4, 5, 6}, {16, 15, 14, 13, 12, 11}, {10, 20, 30, 40, 50, 60}, {7, 7, 7, 7, 7, 7}},
                            {0, 0, 0, 1, 1, 1}, 2);
  const int thresholds[] = {4, 14, 40};
  for (int seed = 1; seed <= 12; ++seed) {
    Velmot::XorShiftRNG replay = seeded_replay(seed);
    std::set<int> drawn;
    std::vector<int> evaluated;
    while (evaluated.size() < 2) {
      int f;
      do {
        f = static_cast<int>(replay.next_int(4));
      } while (drawn.count(f));
      drawn.insert(f);
      if (f != 3) evaluated.push_back(f);
    }
    const int expected = 0.5 > replay.next_double() ? evaluated[1] : evaluated[0];

    const Tree tree = learn(all_of(data), 2, 0);
    ASSERT_EQ(tree->get_feature_index(), expected) << seed;
    EXPECT_EQ(tree->get_threshold(), thresholds[expected]);
    ASSERT_TRUE(tree->get_left() && tree->get_right());
    EXPECT_EQ(tree->get_left()->get_label(), expected == 1 ? 1 : 0);
    EXPECT_EQ(tree->get_right()->get_label(), expected == 1 ? 0 : 1);
    // Pure leaves of two classes make no draw: nothing beyond the replay.
    expect_same_state(*Velmot::get_rng(), replay);
  }
}

TEST(LearnTree, DepthAndLeafSizeLimitsLeaveTheSampleAlone) {
  // Alternating pairs need two levels of splits below the root.
  const Data data = columns({{1, 2, 3, 4, 5, 6, 7, 8}}, {0, 0, 1, 1, 0, 0, 1, 1}, 2);
  Indexed sample = all_of(data);
  std::reverse(sample.indices.begin(), sample.indices.end());
  const std::vector<uint64_t> before = sample.indices;
  seeded_replay(9);
  EXPECT_EQ(depth_of(learn(sample, 0, 1).get()), 1);
  EXPECT_EQ(depth_of(learn(sample, 0, 2).get()), 2);
  const int unlimited = depth_of(learn(sample, 0, 0).get());
  EXPECT_GE(unlimited, 3);
  EXPECT_EQ(depth_of(learn(sample, 0, -4).get()), unlimited);
  // A negative minimum leaf size makes every node a leaf.
  EXPECT_EQ(depth_of(learn(sample, 0, 0, nullptr, -1).get()), 0);
  EXPECT_EQ(sample.indices, before);
}

// All features mode evaluates every feature in order: feature 1 separates
// perfectly and must win without any draw (scores differ, leaves are pure).
// In random mode, where both features are constant in the children (duplicates
// with different labels), the draws run out and the nodes become leaves.
TEST(LearnTree, AllFeaturesModeAndFeaturesRunningOut) {
  const Data data = columns({{1, 2, 3, 4, 5, 6}, {1, 5, 2, 6, 4, 3}}, {0, 1, 0, 1, 1, 1}, 2);
  Velmot::XorShiftRNG replay = seeded_replay(4);
  const Tree tree = learn(all_of(data), 7, 0);
  EXPECT_EQ(tree->get_feature_index(), 1);
  EXPECT_EQ(tree->get_threshold(), 3.0);
  expect_same_state(*Velmot::get_rng(), replay);

  const Data duplicates = columns({{1, 1, 1, 2, 2, 2}, {5, 5, 5, 5, 5, 5}}, {0, 0, 1, 1, 1, 0}, 2);
  seeded_replay(3);
  const Tree stopped = learn(all_of(duplicates), 1, 0);
  EXPECT_EQ(stopped->get_threshold(), 2.0);
  ASSERT_TRUE(stopped->get_left() && stopped->get_right());
  EXPECT_TRUE(stopped->get_left()->is_leaf() && stopped->get_right()->is_leaf());
}

TEST(LearnTree, ImportancesAreImprovementTimesSizeThenNormalised) {
  const Data data = columns({{9, 9, 9, 9}, {1, 2, 3, 4}}, {0, 0, 1, 1}, 2);
  seeded_replay(2);
  // Root: improvement 2 on 4 instances = 8, added to the 2 already there.
  // (One feature per node: in all-features mode the constant feature 0
  // would keep the search going forever.)
  std::vector<double> importances{2.0, 0.0};
  learn(all_of(data), 1, 0, &importances);
  EXPECT_EQ(importances, (std::vector<double>{0.2, 0.8}));

  std::vector<double> fresh(2, 0.0);
  learn(all_of(data), 1, 0, &fresh, 1, Velmot::TwoSplitInfoGain());
  EXPECT_EQ(fresh, (std::vector<double>{0.0, 1.0}));

  // Nothing split: 0 / 0.
  std::vector<double> none{0.0};
  learn(all_of(columns({{1, 2}}, {1, 1}, 2)), 0, 0, &none);
  EXPECT_TRUE(std::isnan(none[0]));

  std::vector<double> too_short;
  EXPECT_THROW(learn(all_of(data), 0, 0, &too_short), Velmot::Exception);
}

TEST(LearnTree, RealLabelsGrowOverTheirIntegerPartsAndLabelsOutsideTheHistogramAreRefused) {
  const auto data = columns<double, double>({{1, 2, 3, 4}}, {0.2, 0.9, 1.5, 1.7}, 2);
  seeded_replay(8);
  const auto tree = learn(all_of(data), 0, 0, nullptr, 1, Velmot::TwoSplitGainRatio());
  EXPECT_EQ(tree->get_threshold(), 2.5);
  ASSERT_TRUE(tree->get_left() && tree->get_right());
  EXPECT_EQ(tree->get_left()->get_label(), 0.0);
  EXPECT_EQ(tree->get_right()->get_label(), 1.0);

  EXPECT_THROW(learn(all_of(columns({{1, 2}}, {0, 3}, 2)), 0, 0), Velmot::IncompatibleDataException);
  EXPECT_THROW(learn(all_of(columns({{1, 2}}, {-2, 0}, 2)), 0, 0), Velmot::IncompatibleDataException);
  const auto real = columns<double, float>({{1, 2}}, {0.5f, -1.0f}, 2);
  EXPECT_THROW(learn(all_of(real), 0, 0, nullptr, 1, Velmot::TwoSplitGainRatio()), Velmot::IncompatibleDataException);
}

}  // namespace
