// learn_tree's rules that the module's reference learner does not reach:
// leaf draws, all-features mode, the limits, importances and real labels.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "test_support.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/stats/criteria.h"

namespace {

using Data = Velmot::MemoryDataSet<int, int>;
using VelmotTest::all_of;
using VelmotTest::columns;

// Seeds the pool and returns a copy of this thread's generator, to replay
// the draws the learner should make.
Velmot::XorShiftRNG seeded_replay(int seed) {
  Velmot::init_pool("", seed);
  return *Velmot::get_rng();
}

void expect_state(const Velmot::XorShiftRNG& replay) {
  EXPECT_EQ(Velmot::get_rng()->get_state().x, replay.get_state().x);
  EXPECT_EQ(Velmot::get_rng()->get_state().w, replay.get_state().w);
}

template <class D, class Criterion = Velmot::TwoSplitGiniImpurity>
auto learn(const Velmot::IndexedDataSet<D>& sample, int fte_per_split, int max_depth = 0,
           std::vector<double>* importances = nullptr, int min_leaf_size = 1,
           const Criterion& criterion = Criterion()) {
  std::vector<double> unused;
  return std::unique_ptr<Velmot::Node<typename D::label_type>>(
      Velmot::learn_tree(sample, fte_per_split, max_depth, min_leaf_size, criterion, importances != nullptr,
                         importances ? *importances : unused));
}

int depth_of(const Velmot::Node<int>* node) {
  return node == nullptr ? -1 : 1 + std::max(depth_of(node->get_left()), depth_of(node->get_right()));
}

TEST(LearnTree, EmptyAndTinySamplesAreLeaves) {
  const Data one_two = columns<int, int>({{1, 2}}, {0, 1});
  const auto bare = learn(Velmot::IndexedDataSet<Data>(&one_two), 0);
  EXPECT_TRUE(bare->is_leaf());
  EXPECT_EQ(bare->get_label(), -2);
  // Three instances split 2 | 1 or 1 | 2 leave a leaf, its split credited.
  for (const std::vector<int>& labels : {std::vector<int>{0, 0, 1}, std::vector<int>{0, 1, 1}}) {
    std::vector<double> importances{0.0};
    const auto node = learn(all_of(columns<int, int>({{1, 2, 3}}, labels)), 0, 0, &importances);
    EXPECT_TRUE(node->is_leaf());
    EXPECT_EQ(node->get_label(), labels[1]);
    EXPECT_EQ(node->get_threshold(), labels[1] == 0 ? 3.0 : 2.0);
    EXPECT_EQ(importances[0], 1.0);
  }
}

// All-features mode takes every feature in order, without draws; in random
// mode, features constant in a node run out and the node is a leaf.
TEST(LearnTree, AllFeaturesModeLimitsAndFeaturesRunningOut) {
  const Data data = columns<int, int>({{1, 2, 3, 4, 5, 6}, {1, 5, 2, 6, 4, 3}}, {0, 1, 0, 1, 1, 1});
  Velmot::XorShiftRNG replay = seeded_replay(4);
  const auto tree = learn(all_of(data), 7);
  EXPECT_EQ(tree->get_feature_index(), 1);
  EXPECT_EQ(tree->get_threshold(), 3.0);
  expect_state(replay);
  const Data duplicates = columns<int, int>({{1, 1, 1, 2, 2, 2}, {5, 5, 5, 5, 5, 5}}, {0, 0, 1, 1, 1, 0});
  seeded_replay(3);
  const auto stopped = learn(all_of(duplicates), 1);
  ASSERT_TRUE(stopped->get_left() && stopped->get_right());
  EXPECT_TRUE(stopped->get_left()->is_leaf() && stopped->get_right()->is_leaf());
  // Negative depth is unlimited; a negative minimum leaf size makes a leaf.
  const Data pairs = columns<int, int>({{1, 2, 3, 4, 5, 6, 7, 8}}, {0, 0, 1, 1, 0, 0, 1, 1});
  EXPECT_EQ(depth_of(learn(all_of(pairs), 0, -4).get()), depth_of(learn(all_of(pairs), 0, 0).get()));
  EXPECT_EQ(depth_of(learn(all_of(pairs), 0, 0, nullptr, -1).get()), 0);
}

TEST(LearnTree, ImportancesAreImprovementTimesSizeThenNormalised) {
  const Data data = columns<int, int>({{9, 9, 9, 9}, {1, 2, 3, 4}}, {0, 0, 1, 1});
  seeded_replay(2);
  // Improvement 2 on 4 instances, added to the 2 already there.
  std::vector<double> importances{2.0, 0.0};
  learn(all_of(data), 1, 0, &importances);
  EXPECT_EQ(importances, (std::vector<double>{0.2, 0.8}));
  std::vector<double> none{0.0};
  learn(all_of(columns<int, int>({{1, 2}}, {1, 1})), 0, 0, &none);
  EXPECT_TRUE(std::isnan(none[0]));
  std::vector<double> too_short;
  EXPECT_THROW(learn(all_of(data), 0, 0, &too_short), Velmot::Exception);
}

TEST(LearnTree, RealLabelsCountByIntegerPartAndLabelsOutsideTheHistogramAreRefused) {
  seeded_replay(8);
  const auto tree = learn(all_of(columns<double, double>({{1, 2, 3, 4}}, {0.2, 0.9, 1.5, 1.7})), 0, 0, nullptr, 1,
                          Velmot::TwoSplitGainRatio());
  EXPECT_EQ(tree->get_threshold(), 2.5);
  EXPECT_EQ(tree->get_left()->get_label(), 0.0);
  EXPECT_EQ(tree->get_right()->get_label(), 1.0);
  for (const std::vector<int>& labels : {std::vector<int>{0, 3}, std::vector<int>{-2, 0}}) {
    EXPECT_THROW(learn(all_of(columns<int, int>({{1, 2}}, labels)), 0), Velmot::IncompatibleDataException);
  }
}

}  // namespace
