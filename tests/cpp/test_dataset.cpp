#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/dataset/weighted_bootstrap.h"
#include "velmot/defs/tree_seeds.h"

using Velmot::MemoryDataSet;

namespace {

const double missing = std::numeric_limits<double>::quiet_NaN();
const double inf = std::numeric_limits<double>::infinity();

template <class F>
std::vector<std::vector<F>> imputed(const std::vector<std::vector<F>>& columns) {
  MemoryDataSet<F, int> data(columns.size());
  data.features = columns;
  data.labels.assign(columns[0].size(), 0);
  data.impute();
  return data.features;
}

// A column missing values takes the upper median of its present values
// (infinities count), or 0 if none is present; the others stay bit for bit.
TEST(Impute, UpperMedianOfPresentValuesInTheColumnsMissingSome) {
  const auto after = imputed<double>({{missing, 9, 7, missing, 8},
                                      {4, missing, 1, 3, 2},
                                      {-0.0, 0.0, inf, -inf, 1e300},
                                      {missing, missing, missing},
                                      {inf, missing, inf, 1, missing}});
  EXPECT_EQ(after,
            (std::vector<std::vector<double>>{
                {8, 9, 7, 8, 8}, {4, 3, 1, 3, 2}, {-0.0, 0.0, inf, -inf, 1e300}, {0, 0, 0}, {inf, inf, inf, 1, inf}}));
  EXPECT_TRUE(std::signbit(after[2][0]));
  EXPECT_EQ(imputed<float>({{7.5f, std::nanf(""), std::nanf("")}})[0], (std::vector<float>{7.5f, 7.5f, 7.5f}));
}

// 7 features: blocks of 4681 instances; 10,001 is two full blocks and a
// partial one. Instance-major, feature-major, feature-major read backwards
// (labels too), and one label for all (label stride 0).
TEST(CopyFrom, EveryLayoutOfALargeMatrixGivesTheSameColumns) {
  const size_t ni = 10001, nf = 7;
  auto value_of = [](size_t i, size_t f) { return static_cast<double>(i) * 100.0 + static_cast<double>(f); };
  std::vector<double> by_instance(ni * nf), by_feature(ni * nf);
  std::vector<int> labels(ni);
  for (size_t i = 0; i < ni; ++i) {
    labels[i] = static_cast<int>(i % 3);
    for (size_t f = 0; f < nf; ++f) by_instance[i * nf + f] = by_feature[f * ni + i] = value_of(i, f);
  }
  const auto* rows = reinterpret_cast<const unsigned char*>(by_instance.data());
  const auto* cols = reinterpret_cast<const unsigned char*>(by_feature.data());
  const size_t d = sizeof(double), back = static_cast<size_t>(-static_cast<int64_t>(d));
  const Velmot::DisNativeArrayDataSet<double, int> views[] = {
      {rows, labels.data(), ni, nf, 3, nf * d, d, sizeof(int)},
      {cols, labels.data(), ni, nf, 3, d, ni * d, sizeof(int)},
      {cols + (ni - 1) * d, labels.data() + ni - 1, ni, nf, 3, back, ni * d, static_cast<size_t>(-sizeof(int))},
      {rows, labels.data() + 2, ni, nf, 3, nf * d, d, 0},
  };
  for (size_t v = 0; v < 4; ++v) {
    MemoryDataSet<double, int> data;
    data.copy_from(views[v]);
    ASSERT_EQ(data.get_num_instances(), ni);
    ASSERT_EQ(data.get_num_features(), nf);
    for (size_t i = 0; i < ni; ++i) {
      const size_t source = v == 2 ? ni - 1 - i : i;
      ASSERT_EQ(data.labels[i], v == 3 ? 2 : labels[source]) << "view " << v << " instance " << i;
      for (size_t f = 0; f < nf; ++f) ASSERT_EQ(data(i, f), value_of(source, f)) << "view " << v << " at " << i;
    }
  }
}

}  // namespace

TEST(WeightedDraws, EachInstanceInProportionToItsWeightAndNoTableForEqualWeights) {
  EXPECT_TRUE(Velmot::WeightedDraws({2.5, 2.5, 2.5}).uniform());
  const Velmot::WeightedDraws draws({0.0, 1.0, 3.0, 0.0, 6.0});
  Velmot::XorShiftRNG rng = Velmot::tree_generator(7, 0);
  std::vector<int> seen(5, 0);
  for (int k = 0; k < 100000; ++k) ++seen[draws.draw(rng)];
  EXPECT_EQ(seen[0] + seen[3], 0);
  EXPECT_NEAR(seen[1], 10000, 400);
  EXPECT_NEAR(seen[2], 30000, 600);
  EXPECT_THROW(Velmot::WeightedDraws({0.0, 0.0}), Velmot::Exception);
}
