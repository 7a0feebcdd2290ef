#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"

using Velmot::DisNativeArrayDataSet;
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

double value_of(size_t i, size_t f) { return static_cast<double>(i) * 100.0 + static_cast<double>(f); }

}  // namespace

// Each column with missing values takes the upper median of its present
// values (infinities count), or 0 if none is present; the others stay bit
// for bit.
TEST(Impute, UpperMedianOfPresentValuesInTheColumnsMissingSome) {
  const std::vector<std::vector<double>> after = imputed<double>({{5, 1, 4, 2, 3},
                                                                  {missing, 9, 7, missing, 8},
                                                                  {4, missing, 1, 3, 2},
                                                                  {-0.0, 0.0, inf, -inf, 1e300},
                                                                  {missing, missing, missing, missing, missing},
                                                                  {inf, missing, inf, 1, missing}});
  EXPECT_EQ(after, (std::vector<std::vector<double>>{{5, 1, 4, 2, 3},
                                                     {8, 9, 7, 8, 8},
                                                     {4, 3, 1, 3, 2},
                                                     {-0.0, 0.0, inf, -inf, 1e300},
                                                     {0, 0, 0, 0, 0},
                                                     {inf, inf, inf, 1, inf}}));
  EXPECT_TRUE(std::signbit(after[3][0]));
  EXPECT_EQ(imputed<float>({{7.5f, std::nanf(""), std::nanf("")}})[0], (std::vector<float>{7.5f, 7.5f, 7.5f}));
  EXPECT_EQ(imputed<int>({{3, -1, 7}})[0], (std::vector<int>{3, -1, 7}));
}

TEST(CopyFrom, EveryLayoutOfALargeMatrixGivesTheSameColumns) {
  // 7 features: blocks of 256 KB / 56 B = 4681 instances; 10,001 is two
  // full blocks and a partial one.
  const size_t ni = 10001, nf = 7;
  std::vector<double> instance_major(ni * nf), feature_major(ni * nf);
  std::vector<int> labels(ni);
  for (size_t i = 0; i < ni; ++i) {
    labels[i] = static_cast<int>(i % 3);
    for (size_t f = 0; f < nf; ++f) instance_major[i * nf + f] = feature_major[f * ni + i] = value_of(i, f);
  }
  const auto bytes = [](const std::vector<double>& m) { return reinterpret_cast<const unsigned char*>(m.data()); };
  const size_t back = static_cast<size_t>(-static_cast<int64_t>(sizeof(double)));
  const size_t back_label = static_cast<size_t>(-static_cast<int64_t>(sizeof(int)));
  // Instance-major, feature-major, feature-major read backwards (labels
  // too), and instance-major with one label for all (label stride 0).
  const DisNativeArrayDataSet<double, int> views[] = {
      {bytes(instance_major), labels.data(), ni, nf, 3, nf * sizeof(double), sizeof(double), sizeof(int)},
      {bytes(feature_major), labels.data(), ni, nf, 3, sizeof(double), ni * sizeof(double), sizeof(int)},
      {bytes(feature_major) + (ni - 1) * sizeof(double), labels.data() + ni - 1, ni, nf, 3, back,
       ni * sizeof(double), back_label},
      {bytes(instance_major), labels.data() + 2, ni, nf, 3, nf * sizeof(double), sizeof(double), 0},
  };
  for (size_t v = 0; v < 4; ++v) {
    MemoryDataSet<double, int> data;
    data.copy_from(views[v]);
    ASSERT_EQ(data.get_num_instances(), ni);
    ASSERT_EQ(data.get_num_features(), nf);
    EXPECT_EQ(data.get_num_classes(), 3u);
    for (size_t i = 0; i < ni; ++i) {
      const size_t source = v == 2 ? ni - 1 - i : i;
      ASSERT_EQ(data.labels[i], v == 3 ? 2 : labels[source]) << "view " << v << " instance " << i;
      for (size_t f = 0; f < nf; ++f) {
        ASSERT_EQ(data(i, f), value_of(source, f)) << "view " << v << " feature " << f << " instance " << i;
      }
    }
  }
}
