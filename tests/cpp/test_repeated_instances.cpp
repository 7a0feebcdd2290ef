// The grower merges a bootstrap's repeated instance numbers into weighted
// positions. These tests learn each sample twice: as drawn, and from a data
// set holding one row per draw (in the order the grower visits the draws),
// where nothing repeats. Every tree, draw and importance must agree: on
// every path the sorted pairs can take (packed ranks, sorted or counted;
// byte values; rank copies for real labels; value pairs for features
// without ranks, NaN included) and for a criterion without its own sweep.
// Last, ranks read from their instance-major copy against the columns.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/learn/tree.h"
#include "velmot/stats/criteria.h"

namespace {

template <class F, class L>
struct Case {
  Velmot::MemoryDataSet<F, L> data{0};
  std::vector<uint64_t> draws;  // with repeats, ascending
};

// n rows of nf features drawn from `levels` values (so values tie) and
// labels that follow feature 0 with noise; `nan_every` > 0 puts a NaN into
// feature 1 of every such row.
template <class F, class L>
Case<F, L> make_case(size_t n, size_t nf, int levels, size_t draws, unsigned seed, size_t nan_every = 0) {
  std::mt19937 gen(seed);
  Case<F, L> c;
  c.data = Velmot::MemoryDataSet<F, L>(nf);
  c.data.nc = 3;
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = 0; j < nf; ++j) c.data.features[j].push_back(static_cast<F>(static_cast<int>(gen() % levels)));
    if (nan_every > 0 && i % nan_every == 0) {
      c.data.features[1].back() = std::numeric_limits<F>::quiet_NaN();
    }
    const int signal = static_cast<int>(c.data.features[0].back()) * 3 / levels;
    const int label = gen() % 5 == 0 ? static_cast<int>(gen() % 3) : signal;
    // Real labels carry a fraction: the learner counts integer parts.
    c.data.labels.push_back(static_cast<L>(label) + (std::is_integral<L>::value ? L(0) : static_cast<L>(0.5)));
  }
  for (size_t k = 0; k < draws; ++k) c.draws.push_back(gen() % n);
  std::sort(c.draws.begin(), c.draws.end());
  return c;
}

template <class F, class L>
Velmot::MemoryDataSet<F, L> one_row_per_draw(const Case<F, L>& c) {
  Velmot::MemoryDataSet<F, L> rows(c.data.get_num_features());
  rows.nc = c.data.nc;
  for (const uint64_t i : c.draws) {
    for (size_t j = 0; j < rows.features.size(); ++j) rows.features[j].push_back(c.data.features[j][i]);
    rows.labels.push_back(c.data.labels[i]);
  }
  return rows;
}

template <class L>
struct Learnt {
  Velmot::VectorizedTree<L> tree;
  std::vector<double> importances;
  Velmot::XorShiftState generator_after;
};

// with_rows: small nodes read the ranks' instance-major copy.
template <class D, class Criterion>
Learnt<typename D::label_type> learn(const D& data, const std::vector<uint64_t>& sample, bool with_ranks,
                                     int fte_per_split, int min_leaf_size, const Criterion& criterion,
                                     bool with_rows = false) {
  Velmot::IndexedDataSet<D> indexed(&data);
  indexed.indices = sample;
  Velmot::FeatureRanks<typename D::feature_type> ranks;
  if (with_ranks) {
    ranks = Velmot::FeatureRanks<typename D::feature_type>(data);
    if (with_rows) ranks.copy_to_rows();
    indexed.ranks = &ranks;
  }
  Velmot::init_pool("", 23);
  Learnt<typename D::label_type> learnt;
  learnt.importances.assign(data.get_num_features(), 0.0);
  std::unique_ptr<Velmot::Node<typename D::label_type>> root(
      Velmot::learn_tree(indexed, fte_per_split, 0, min_leaf_size, criterion, true, learnt.importances));
  learnt.tree.root_to_vector(root.get());
  learnt.generator_after = Velmot::get_rng()->get_state();
  return learnt;
}

template <class L>
void expect_same(const Learnt<L>& a, const Learnt<L>& b) {
  EXPECT_TRUE(VelmotTest::same_tree(a.tree, b.tree));
  EXPECT_EQ(a.importances, b.importances);
  EXPECT_EQ(a.generator_after.x, b.generator_after.x);
  EXPECT_EQ(a.generator_after.w, b.generator_after.w);
}

// Learns the case both ways and checks that the tree did split.
template <class F, class L, class Criterion = Velmot::TwoSplitGiniImpurity>
void expect_repeats_learn_as_copies(const Case<F, L>& c, bool with_ranks, int fte_per_split, int min_leaf_size = 1,
                                    const Criterion& criterion = Criterion()) {
  const auto rows = one_row_per_draw(c);
  std::vector<uint64_t> each_row(c.draws.size());
  for (size_t k = 0; k < each_row.size(); ++k) each_row[k] = k;
  const auto merged = learn(c.data, c.draws, with_ranks, fte_per_split, min_leaf_size, criterion);
  const auto copies = learn(rows, each_row, with_ranks, fte_per_split, min_leaf_size, criterion);
  EXPECT_GT(merged.tree.get_num_nodes(), 3u);
  expect_same(merged, copies);
}

TEST(RepeatedInstances, EveryPathLearnsAsCopies) {
  // Ranked features: many levels make large nodes sort their packed keys;
  // few levels, counted.
  expect_repeats_learn_as_copies(make_case<double, int>(9000, 5, 6000, 9000, 1), true, 2);
  expect_repeats_learn_as_copies(make_case<double, int>(3000, 5, 12, 3000, 2), true, 2);
  expect_repeats_learn_as_copies(make_case<float, int>(500, 4, 300, 900, 3), true, 3, 3);
  // Byte values.
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(2000, 4, 256, 2000, 4), false, 2);
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(300, 4, 7, 600, 5), false, 3);
  // Real labels, and values without ranks.
  expect_repeats_learn_as_copies(make_case<double, double>(1500, 4, 900, 1500, 6), true, 2);
  expect_repeats_learn_as_copies(make_case<int, int>(1500, 4, 40, 1500, 7), false, 2);
  // NaN values take the value sort, whose order of NaN depends on the
  // order of the pairs.
  expect_repeats_learn_as_copies(make_case<double, int>(400, 3, 30, 1200, 8, 3), false, 2);
  // Criteria through their accumulators.
  expect_repeats_learn_as_copies(make_case<double, int>(1500, 4, 900, 1500, 9), true, 2, 1,
                                 Velmot::TwoSplitInfoGain());
  expect_repeats_learn_as_copies(make_case<unsigned char, int>(800, 4, 9, 800, 10), false, 3, 1,
                                 Velmot::TwoSplitGainRatio());
}

// Nodes holding under a sixteenth of the instances read the ranks from
// their rows (the copy large data sets get): same trees, draws and
// importances, with repeats, ties, and a feature left unranked by NaN.
template <class F>
void expect_rows_learn_as_columns(const Case<F, int>& c) {
  const Velmot::TwoSplitGiniImpurity gini;
  const auto columns = learn(c.data, c.draws, true, 2, 1, gini);
  const auto rows = learn(c.data, c.draws, true, 2, 1, gini, true);
  EXPECT_GT(rows.tree.get_num_nodes(), 100u);
  expect_same(columns, rows);
}

TEST(RepeatedInstances, RanksReadFromRowsLearnTheSameTrees) {
  expect_rows_learn_as_columns(make_case<double, int>(9000, 5, 6000, 9000, 11));
  expect_rows_learn_as_columns(make_case<double, int>(4000, 4, 40, 4000, 12, 7));
  expect_rows_learn_as_columns(make_case<float, int>(3000, 3, 2000, 6000, 13));
}

// Ascending instance numbers, each once with its copies as its weight.
TEST(RepeatedInstances, MergeKeepsLabelsAndWeightsBesideTheirInstances) {
  const auto data = VelmotTest::columns<double, int>({{5, 1, 4, 2, 3}}, {0, 1, 2, 0, 1}, 3);
  Velmot::IndexedDataSet<Velmot::MemoryDataSet<double, int>> indexed(&data);
  indexed.indices = {4, 1, 4, 0, 4, 1};
  indexed.merge_repeats();
  EXPECT_EQ(indexed.indices, (std::vector<uint64_t>{0, 1, 4}));
  EXPECT_EQ(indexed.position_weights, (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(indexed.weight_of(0, 3), 6u);
  EXPECT_EQ(indexed.position_labels, (std::vector<int>{0, 1, 1}));
}

}  // namespace
