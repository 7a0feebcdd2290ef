#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "test_support.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_forest.h"
#include "velmot/stats/criteria.h"

// The division of trees among threads and their generators is checked
// against an independent learner through the module.

namespace {

using Data = Velmot::MemoryDataSet<double, int>;

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

}  // namespace
