// Copying matrices large enough to be copied in several blocks of
// instances (the last one partial), and imputing a wide data set in which
// only some columns miss values.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"

namespace {

using Velmot::DisNativeArrayDataSet;
using Velmot::MemoryDataSet;

double value_of(size_t i, size_t f) { return static_cast<double>(i) * 100.0 + static_cast<double>(f); }

TEST(CopyFrom, EveryLayoutOfALargeMatrixGivesTheSameColumns) {
  // 7 features: blocks of 256 KB / 56 B = 4681 instances; 10,001 is two
  // full blocks and a partial one.
  const size_t ni = 10001, nf = 7;
  std::vector<double> instance_major(ni * nf), feature_major(ni * nf);
  for (size_t i = 0; i < ni; ++i) {
    for (size_t f = 0; f < nf; ++f) {
      instance_major[i * nf + f] = value_of(i, f);
      feature_major[f * ni + i] = value_of(i, f);
    }
  }
  std::vector<int> labels(ni);
  for (size_t i = 0; i < ni; ++i) labels[i] = static_cast<int>(i % 3);
  const auto bytes = [](const std::vector<double>& m) { return reinterpret_cast<const unsigned char*>(m.data()); };
  // Instance-major, feature-major, and feature-major read backwards.
  const DisNativeArrayDataSet<double, int> views[] = {
      {bytes(instance_major), labels.data(), ni, nf, 3, nf * sizeof(double), sizeof(double), sizeof(int)},
      {bytes(feature_major), labels.data(), ni, nf, 3, sizeof(double), ni * sizeof(double), sizeof(int)},
      {bytes(feature_major) + (ni - 1) * sizeof(double), labels.data(), ni, nf, 3, static_cast<size_t>(-8),
       ni * sizeof(double), sizeof(int)},
  };
  for (size_t v = 0; v < 3; ++v) {
    MemoryDataSet<double, int> data;
    data.copy_from(views[v]);
    ASSERT_EQ(data.get_num_instances(), ni);
    ASSERT_EQ(data.get_num_features(), nf);
    EXPECT_EQ(data.get_num_classes(), 3u);
    for (size_t f = 0; f < nf; ++f) {
      for (size_t i = 0; i < ni; ++i) {
        const size_t source = v == 2 ? ni - 1 - i : i;
        ASSERT_EQ(data(i, f), value_of(source, f)) << "view " << v << " feature " << f << " instance " << i;
      }
    }
    EXPECT_EQ(data.labels, labels);
  }
}

TEST(Impute, OnlyColumnsWithMissingValuesChange) {
  const double missing = std::numeric_limits<double>::quiet_NaN();
  MemoryDataSet<double, int> data(4);
  data.features[0] = {5, 1, 4, 2, 3};
  data.features[1] = {missing, 9, 7, missing, 8};
  data.features[2] = {-0.0, 0.0, std::numeric_limits<double>::infinity(), 1, 2};
  data.features[3] = {missing, missing, missing, missing, missing};
  data.labels.assign(5, 0);
  const auto untouched = data.features[2];
  data.impute();
  EXPECT_EQ(data.features[0], (std::vector<double>{5, 1, 4, 2, 3}));
  EXPECT_EQ(data.features[1], (std::vector<double>{8, 9, 7, 8, 8}));
  EXPECT_EQ(data.features[2], untouched);
  EXPECT_TRUE(std::signbit(data.features[2][0]));
  EXPECT_EQ(data.features[3], (std::vector<double>(5, 0.0)));
}

}  // namespace
