// The grower merges a bootstrap's repeated instance numbers into weighted
// positions. Each sample is learnt twice: as drawn, and from a data set
// holding one row per draw, where nothing repeats. Tree, draws and
// importances must agree on every path the sorted pairs can take (packed
// ranks, sorted or counted; byte values; real labels; values without
// ranks, NaN included), for every criterion, and with ranks read from
// their instance-major copy.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/rank_order.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/stats/criteria.h"
#include "velmot/stats/squared_error.h"

namespace {

// n rows of nf features drawn from `levels` values (so values tie), labels
// that follow feature 0 with noise, every nan_every-th row NaN in feature
// 1; and `draws` ascending instance numbers with repeats.
template <class F, class L>
std::pair<Velmot::MemoryDataSet<F, L>, std::vector<uint64_t>> make_case(size_t n, size_t nf, int levels, size_t draws,
                                                                        unsigned seed, size_t nan_every = 0) {
  std::mt19937 gen(seed);
  Velmot::MemoryDataSet<F, L> data(nf);
  data.nc = 3;
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = 0; j < nf; ++j) data.features[j].push_back(static_cast<F>(static_cast<int>(gen() % levels)));
    if (nan_every > 0 && i % nan_every == 0) data.features[1].back() = std::numeric_limits<F>::quiet_NaN();
    const int signal = static_cast<int>(static_cast<int64_t>(data.features[0].back()) * 3 / levels);
    const int label = gen() % 5 == 0 ? static_cast<int>(gen() % 3) : signal;
    data.labels.push_back(static_cast<L>(label) + (std::is_integral<L>::value ? L(0) : static_cast<L>(0.5)));
  }
  std::vector<uint64_t> sample;
  for (size_t k = 0; k < draws; ++k) sample.push_back(gen() % n);
  std::sort(sample.begin(), sample.end());
  return {data, sample};
}

template <class L>
struct Learnt {
  Velmot::VectorizedTree<L> tree;
  std::vector<double> importances;
  Velmot::XorShiftState generator_after;
};

template <class D, class Criterion>
Learnt<typename D::label_type> learn(const D& data, const std::vector<uint64_t>& sample, bool with_ranks,
                                     bool rank_rows, int fte_per_split, const Criterion& criterion,
                                     size_t walk_factor = 0) {
  Velmot::IndexedDataSet<D> indexed(&data);
  indexed.indices.assign(sample.begin(), sample.end());
  Velmot::FeatureRanks<typename D::feature_type> ranks;
  if (with_ranks) {
    ranks = Velmot::FeatureRanks<typename D::feature_type>(data);
    if (rank_rows) ranks.copy_to_rows();
    indexed.ranks = &ranks;
  }
  Velmot::RankOrder order;
  if (walk_factor > 0) {
    order = Velmot::RankOrder(ranks, data.get_num_features(), data.get_num_instances(), walk_factor);
    indexed.rank_order = &order;
  }
  Velmot::init_pool("", 23);
  Learnt<typename D::label_type> learnt;
  learnt.importances.assign(data.get_num_features(), 0.0);
  std::unique_ptr<Velmot::Node<typename D::label_type>> root(
      Velmot::learn_tree(indexed, fte_per_split, 0, 1, criterion, true, learnt.importances));
  learnt.tree.root_to_vector(root.get());
  learnt.generator_after = Velmot::get_rng()->get_state();
  return learnt;
}

template <class F, class L, class Criterion = Velmot::TwoSplitGiniImpurity>
void expect_repeats_learn_as_copies(const std::pair<Velmot::MemoryDataSet<F, L>, std::vector<uint64_t>>& c,
                                    bool with_ranks, int fte_per_split, const Criterion& criterion = Criterion()) {
  const auto& [data, draws] = c;
  Velmot::MemoryDataSet<F, L> rows(data.get_num_features());
  rows.nc = data.nc;
  std::vector<uint64_t> each_row;
  for (const uint64_t i : draws) {
    for (size_t j = 0; j < rows.features.size(); ++j) rows.features[j].push_back(data.features[j][i]);
    rows.labels.push_back(data.labels[i]);
    each_row.push_back(each_row.size());
  }
  const auto merged = learn(data, draws, with_ranks, false, fte_per_split, criterion);
  for (const auto& other : {learn(rows, each_row, with_ranks, false, fte_per_split, criterion),
                            learn(data, draws, with_ranks, true, fte_per_split, criterion)}) {
    EXPECT_GT(merged.tree.get_num_nodes(), 3u);
    EXPECT_TRUE(VelmotTest::same_tree(merged.tree, other.tree));
    EXPECT_EQ(merged.importances, other.importances);
    EXPECT_EQ(merged.generator_after.x, other.generator_after.x);
    EXPECT_EQ(merged.generator_after.w, other.generator_after.w);
  }
}

// Squared error adds an instance's copies together, so a sample is compared
// with itself learnt through the other sorts: ranks from their rows, values
// alone, which put tied values in label order without ranks, and every node
// walking the rank orders of its tie-free features.
void expect_squared_error_sorts_agree(const std::pair<Velmot::MemoryDataSet<double, double>, std::vector<uint64_t>>& c,
                                      int fte_per_split) {
  auto [data, draws] = c;
  // Labels of many values, so that the order of a sum shows in its last bits.
  for (size_t i = 0; i < data.labels.size(); ++i) data.labels[i] += 0.001 * static_cast<double>(i % 997);
  const Velmot::SquaredError criterion;
  const auto ranked = learn(data, draws, true, false, fte_per_split, criterion);
  EXPECT_GT(ranked.tree.get_num_nodes(), 3u);
  const size_t every_node = data.get_num_instances();
  for (const auto& other : {learn(data, draws, true, true, fte_per_split, criterion),
                            learn(data, draws, false, false, fte_per_split, criterion),
                            learn(data, draws, true, false, fte_per_split, criterion, every_node)}) {
    EXPECT_TRUE(VelmotTest::same_tree(ranked.tree, other.tree));
    EXPECT_EQ(ranked.importances, other.importances);
    EXPECT_EQ(ranked.generator_after.x, other.generator_after.x);
  }
}

TEST(RepeatedInstances, SquaredErrorLearnsAlikeFromEverySort) {
  // Ranks and positions in one key; in two arrays where a node's positions
  // and the feature's ranks need more than 32 bits together.
  expect_squared_error_sorts_agree(make_case<double, double>(1500, 4, 900, 1500, 11), 2);
  expect_squared_error_sorts_agree(make_case<double, double>(150000, 2, 150000, 150000, 12), 1);
  // Nearly tie-free values, several features per split: nodes of two to
  // four positions draw between features' equal scores.
  expect_squared_error_sorts_agree(make_case<double, double>(3000, 6, 1 << 30, 3000, 13), 3);
}

TEST(RepeatedInstances, EveryPathLearnsAsCopies) {
  // Ranked features: many levels sort their packed keys, few are counted.
  expect_repeats_learn_as_copies(make_case<double, int>(9000, 5, 6000, 9000, 1), true, 2);
  expect_repeats_learn_as_copies(make_case<double, int>(4000, 4, 40, 4000, 12, 7), true, 2);
  expect_repeats_learn_as_copies(make_case<float, int>(500, 4, 300, 900, 3), true, 3);
  // Byte values, real labels, and values without ranks (NaN among them).
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(2000, 4, 256, 2000, 4), false, 2);
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(300, 4, 7, 600, 5), false, 3);
  expect_repeats_learn_as_copies(make_case<double, double>(1500, 4, 900, 1500, 6), true, 2);
  expect_repeats_learn_as_copies(make_case<int, int>(1500, 4, 40, 1500, 7), false, 2);
  expect_repeats_learn_as_copies(make_case<double, int>(400, 3, 30, 1200, 8, 3), false, 2);
  expect_repeats_learn_as_copies(make_case<double, int>(1500, 4, 900, 1500, 9), true, 2, Velmot::TwoSplitInfoGain());
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(800, 4, 9, 800, 10), false, 3,
                                 Velmot::TwoSplitGainRatio());
}

// Midpoints of neighbouring doubles round onto the lower one, and those of
// the largest overflow: such thresholds split by value, as without ranks,
// whether the values come from a feature's values by rank (few levels) or
// from instances found while partitioning.
TEST(RepeatedInstances, RoundedThresholdsSplitAsWithoutRanks) {
  for (const int levels : {40, 1000}) {
    auto [data, draws] = make_case<double, int>(3000, 2, levels, 3000, 13);
    for (double& x : data.features[0]) x = 1.0 + x * std::numeric_limits<double>::epsilon();
    for (double& x : data.features[1]) x = (x - 0.5 * levels) * (3.5e306 * (100.0 / levels));
    const auto ranked = learn(data, draws, true, false, 1, Velmot::TwoSplitGiniImpurity());
    const auto values = learn(data, draws, false, false, 1, Velmot::TwoSplitGiniImpurity());
    EXPECT_TRUE(VelmotTest::same_tree(ranked.tree, values.tree)) << levels;
  }
}

}  // namespace
