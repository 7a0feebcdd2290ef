#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"

using Velmot::DisNativeArrayDataSet;
using Velmot::MemoryDataSet;

namespace {

const double missing = std::numeric_limits<double>::quiet_NaN();
const double inf = std::numeric_limits<double>::infinity();

// A one-feature data set holding `column`, imputed.
template <class F>
std::vector<F> imputed(const std::vector<F>& column) {
  std::vector<int> labels(column.size(), 0);
  DisNativeArrayDataSet<F, int> view(reinterpret_cast<const unsigned char*>(column.data()), labels.data(),
                                     column.size(), 1, 2, sizeof(F), 0, sizeof(int));
  MemoryDataSet<F, int> data;
  data.copy_from(view);
  data.impute();
  return std::vector<F>(data.begin(0), data.end(0));
}

}  // namespace

TEST(Impute, UpperMedianOfPresentValues) {
  EXPECT_EQ(imputed<double>({1, missing, 3, 2}), (std::vector<double>{1, 2, 3, 2}));
  // Even count: the upper middle value, not the mean of the two.
  EXPECT_EQ(imputed<double>({4, missing, 1, 3, 2}), (std::vector<double>{4, 3, 1, 3, 2}));
  EXPECT_EQ(imputed<float>({7.5f, std::nanf(""), std::nanf("")}), (std::vector<float>{7.5f, 7.5f, 7.5f}));
}

TEST(Impute, AllMissingBecomesZeroAndCompleteColumnsStayBitForBit) {
  EXPECT_EQ(imputed<double>({missing, missing}), (std::vector<double>{0, 0}));
  const std::vector<double> with_infinities = {inf, -inf, -0.0, 1e300};
  const std::vector<double> after = imputed<double>(with_infinities);
  EXPECT_EQ(after, with_infinities);
  EXPECT_TRUE(std::signbit(after[2]));
  // Infinities count as present values for the median.
  EXPECT_EQ(imputed<double>({inf, missing, inf, 1}), (std::vector<double>{inf, inf, inf, 1}));
}

TEST(Impute, IntegerFeaturesAreUnchanged) {
  EXPECT_EQ(imputed<int>({3, -1, 7}), (std::vector<int>{3, -1, 7}));
  EXPECT_EQ(imputed<unsigned char>({255, 0}), (std::vector<unsigned char>{255, 0}));
}

TEST(NativeArrayDataSet, RowAndColumnMajorMatricesGiveIdenticalData) {
  // 3 features x 4 instances, feature f of instance i = 10 f + i.
  std::vector<float> feature_major(12), instance_major(12);
  for (int f = 0; f < 3; ++f)
    for (int i = 0; i < 4; ++i) {
      feature_major[f * 4 + i] = static_cast<float>(10 * f + i);
      instance_major[i * 3 + f] = static_cast<float>(10 * f + i);
    }
  const std::vector<double> labels = {0.5, 1.5, 2.5, 3.5};
  auto bytes = [](const std::vector<float>& v) { return reinterpret_cast<const unsigned char*>(v.data()); };
  DisNativeArrayDataSet<float, double> a(bytes(feature_major), labels.data(), 4, 3, 5, sizeof(float),
                                         4 * sizeof(float), sizeof(double));
  DisNativeArrayDataSet<float, double> b(bytes(instance_major), labels.data(), 4, 3, 5, 3 * sizeof(float),
                                         sizeof(float), sizeof(double));
  MemoryDataSet<float, double> da, db;
  da.copy_from(a);
  db.copy_from(b);
  EXPECT_EQ(da.features, db.features);
  EXPECT_EQ(da.labels, db.labels);
  EXPECT_EQ(da(3, 2), 23.0f);
  EXPECT_EQ(da.get_num_instances(), 4u);
  EXPECT_EQ(da.get_num_features(), 3u);
  EXPECT_EQ(da.get_num_classes(), 5u);
  EXPECT_EQ(da.get_labeling(), Velmot::DiscreteZeroOnward);
}

TEST(NativeArrayDataSet, ZeroLabelStrideRepeatsTheFirstLabel) {
  const std::vector<unsigned char> features = {1, 2, 3};
  const int label = 4;
  DisNativeArrayDataSet<unsigned char, int> view(features.data(), &label, 3, 1, 5, 1, 0, 0);
  EXPECT_EQ(view.labels, (std::vector<int>{4, 4, 4}));
}

TEST(NativeArrayDataSet, NegativeStridesReadBackwards) {
  const std::vector<int> values = {1, 2, 3, 4};
  const int labels[4] = {0, 1, 0, 1};
  // Instances read from the last element backwards, labels likewise.
  DisNativeArrayDataSet<int, int> view(reinterpret_cast<const unsigned char*>(values.data() + 3), labels + 3, 4, 1,
                                       2, static_cast<size_t>(-static_cast<int64_t>(sizeof(int))), 0,
                                       static_cast<size_t>(-static_cast<int64_t>(sizeof(int))));
  EXPECT_EQ(view(0, 0), 4);
  EXPECT_EQ(view(3, 0), 1);
  EXPECT_EQ(view.labels, (std::vector<int>{1, 0, 1, 0}));
}
