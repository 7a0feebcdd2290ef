#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_forest.h"
#include "velmot/stats/criteria.h"

namespace {

using Data = Velmot::MemoryDataSet<double, int>;
using VelmotTest::ThreadCount;

struct OwnedForest {
  explicit OwnedForest(std::vector<Velmot::Node<int>*> trees) : trees(std::move(trees)) {}
  ~OwnedForest() {
    for (auto* tree : trees) delete tree;
  }
  std::vector<Velmot::Node<int>*> trees;
};

// 60 instances, 4 features, 3 classes, with noise: trees of a few levels.
Data noisy_data() {
  Data data(4);
  data.nc = 3;
  Velmot::XorShiftRNG gen(Velmot::XorShiftState{3, 5, 7, 11});
  for (int i = 0; i < 60; ++i) {
    for (auto& column : data.features) column.push_back(static_cast<double>(gen.next_int(20)));
    const double s = data.features[0].back() + data.features[1].back();
    data.labels.push_back(gen.next_int(10) == 0 ? static_cast<int>(gen.next_int(3)) : (s < 15 ? 0 : s < 25 ? 1 : 2));
  }
  return data;
}

std::vector<Velmot::Node<int>*> learn(const Data& data, int trees, std::vector<double>& importances,
                                      bool compute = true, double sample = 1.0) {
  return Velmot::learn_forest(data, trees, sample, 2, 0, 1, Velmot::TwoSplitGiniImpurity(), compute, importances);
}

// On T threads, thread t learns the static block of trees [t c, (t+1) c),
// c = ceil(10 / T), with its own generator: replayed on one thread with
// those generators, each tree and the importances come out again.
TEST(LearnForest, StaticBlocksFromEachThreadsGenerator) {
  const Data data = noisy_data();
  for (const int threads : {1, 2, 4}) {
    SCOPED_TRACE(threads);
    std::vector<double> importances(4);
    Velmot::init_pool("", 77);
    ThreadCount count(threads);
    OwnedForest forest(learn(data, 10, importances));
    Velmot::init_pool("", 77);
    Velmot::XorShiftRNGPool* pool = Velmot::get_pool("", 1, 0, false);
    std::vector<Velmot::XorShiftState> states;
    for (size_t t = 0; t < static_cast<size_t>(threads); ++t) states.push_back(pool->get_generator(t)->get_state());
    const size_t chunk = (10 + static_cast<size_t>(threads) - 1) / static_cast<size_t>(threads);
    std::vector<double> expected(4, 0.0);
    for (size_t k = 0; k < 10; ++k) {
      if (k % chunk == 0) pool->get_generator(0)->set_seed(states[k / chunk]);
      const auto sample = Velmot::random_subset_iid(&data, 1.0, *Velmot::get_rng());
      std::vector<double> tree_importances(4, 0.0);
      std::unique_ptr<Velmot::Node<int>> tree(
          Velmot::learn_tree(sample, 2, 0, 1, Velmot::TwoSplitGiniImpurity(), true, tree_importances));
      EXPECT_TRUE(VelmotTest::same_tree(tree.get(), forest.trees[k])) << "tree " << k;
      for (size_t j = 0; j < 4; ++j) expected[j] += tree_importances[j];
    }
    // Per-thread sums merge in any order: equal up to rounding.
    for (size_t j = 0; j < 4; ++j) EXPECT_NEAR(importances[j], expected[j] / 10, 1e-14);
  }
}

TEST(LearnForest, EmptyForestsUnrequestedImportancesAndBadInput) {
  const Data data = noisy_data();
  Velmot::init_pool("", 1);
  std::vector<double> importances{3.0, 3.0, 3.0, 3.0};
  EXPECT_TRUE(learn(data, 0, importances).empty());
  for (const double v : importances) EXPECT_TRUE(std::isnan(v));
  OwnedForest forest(learn(data, 2, importances, false));
  EXPECT_EQ(importances, (std::vector<double>(4, 0.0)));

  EXPECT_EQ(VelmotTest::message_of([&] { learn(Data(4), 3, importances); }), "data set is empty");
  Data bad_label = noisy_data();
  bad_label.labels[7] = 4;
  EXPECT_THROW(learn(bad_label, 3, importances), Velmot::IncompatibleDataException);
  for (const double bad_fraction : {-0.5, std::nan(""), 1e300}) {
    EXPECT_THROW(learn(data, 3, importances, true, bad_fraction), Velmot::Exception);
  }
  std::vector<double> too_short(2);
  EXPECT_THROW(learn(data, 3, too_short), Velmot::Exception);
  EXPECT_THROW(learn(data, -1, importances), std::exception);
}

TEST(LearnForest, EveryThreadWithATreeNeedsAGenerator) {
  const Data data = noisy_data();
  std::vector<double> importances(4);
  ThreadCount two(2);
  Velmot::get_pool("", 1, 5, true);
  EXPECT_THROW(learn(data, 2, importances), Velmot::Exception);
  OwnedForest one_tree(learn(data, 1, importances));
  EXPECT_EQ(one_tree.trees.size(), 1u);
  // A re-seeding that failed half-way leaves empty slots.
  const char* path = "velmot_short_seed_file.bin";
  std::ofstream(path, std::ios::binary) << std::string(40, '\x01');
  EXPECT_THROW(Velmot::init_pool(path, 0), Velmot::Exception);
  std::remove(path);
  EXPECT_THROW(learn(data, 2, importances), Velmot::Exception);
  Velmot::init_pool("", 1);
}

}  // namespace
