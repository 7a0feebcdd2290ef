// FeatureRanks against a plain comparison-sort ranking: the same ranks (in
// the columns and in the instance-major copy) and the same value table, bit
// for bit, on data that reaches every path of the radix sort (skipped
// digits, runs of equal high halves, both zeros, ties).

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"

namespace {

// Dense ranks by a comparison sort; the value of a rank is that of its
// highest instance (the table filled in instance order).
template <class F>
void reference_ranks(const std::vector<F>& column, std::vector<uint32_t>& ranks, std::vector<F>& values) {
  std::vector<std::pair<F, uint32_t>> order(column.size());
  for (size_t i = 0; i < column.size(); ++i) order[i] = {column[i], static_cast<uint32_t>(i)};
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  ranks.assign(column.size(), 0);
  uint32_t current = 0;
  for (size_t k = 1; k < order.size(); ++k) {
    if (order[k].first != order[k - 1].first) ++current;
    ranks[order[k].second] = current;
  }
  values.assign(column.empty() ? 0 : current + 1, F());
  for (size_t i = 0; i < column.size(); ++i) values[ranks[i]] = column[i];
}

template <class F>
Velmot::MemoryDataSet<F, int> data_of(const std::vector<std::vector<F>>& columns) {
  Velmot::MemoryDataSet<F, int> data(columns.size());
  data.features = columns;
  data.labels.assign(columns.empty() ? 0 : columns[0].size(), 0);
  return data;
}

template <class F>
void expect_reference_ranks(const std::vector<std::vector<F>>& columns, int threads = 1) {
  const auto data = data_of(columns);
  omp_set_num_threads(threads);
  Velmot::FeatureRanks<F> ranks(data);
  ranks.copy_to_rows();
  for (size_t j = 0; j < columns.size(); ++j) {
    std::vector<uint32_t> expected_ranks;
    std::vector<F> expected_values;
    reference_ranks(columns[j], expected_ranks, expected_values);
    ASSERT_TRUE(ranks.has_ranks(j)) << "feature " << j;
    ASSERT_TRUE(std::equal(expected_ranks.begin(), expected_ranks.end(), ranks.ranks(j))) << "feature " << j;
    for (size_t i = 0; i < expected_ranks.size(); ++i) {
      ASSERT_EQ(ranks.row_ranks(j)[i * ranks.row_stride()], expected_ranks[i]) << "row " << i << ", feature " << j;
    }
    ASSERT_EQ(ranks.num_ranks(j), expected_values.size()) << "feature " << j;
    // Bytes, not values: the sign of a zero counts.
    ASSERT_EQ(std::memcmp(expected_values.data(), ranks.values(j), expected_values.size() * sizeof(F)), 0)
        << "feature " << j;
  }
}

template <class F>
std::vector<std::vector<F>> floating_columns(size_t n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> normal;
  std::vector<std::vector<F>> columns(7, std::vector<F>(n));
  for (size_t i = 0; i < n; ++i) {
    const double x = normal(gen);
    columns[0][i] = static_cast<F>(x);                       // continuous, both signs
    columns[1][i] = static_cast<F>(std::round(x * 4) / 4);   // many ties, zeros among them
    columns[2][i] = static_cast<F>(gen() % 2 ? 0.0 : -0.0);  // only the two zeros
    // Neighbours that differ in the low bits only: long runs of one high half.
    columns[3][i] = static_cast<F>(1.0 + static_cast<double>(gen() % 5000) * std::numeric_limits<double>::epsilon());
    columns[4][i] = static_cast<F>(x * 1e-310);  // subnormal doubles (zeros as floats)
    columns[5][i] = static_cast<F>(3.5);         // constant: every digit skipped
    columns[6][i] = static_cast<F>(x > 0 ? x * 1e300 : -x * 1e-300);  // large and tiny magnitudes
  }
  const F extremes[] = {std::numeric_limits<F>::infinity(), -std::numeric_limits<F>::infinity(),
                        std::numeric_limits<F>::max(), std::numeric_limits<F>::lowest(),
                        std::numeric_limits<F>::denorm_min(), -std::numeric_limits<F>::denorm_min(),
                        F(0), -F(0)};
  for (size_t k = 0; k < std::size(extremes) && k < n; ++k) columns[0][gen() % n] = extremes[k];
  return columns;
}

TEST(FeatureRanks, EveryTypeMatchesTheComparisonSortOnAnyThreadCount) {
  // 7 x 80,000 ranks pass 2 MiB: the table is then laid out for huge pages.
  for (const size_t n : {1u, 2u, 17u, 3000u, 80000u}) expect_reference_ranks(floating_columns<double>(n, n));
  for (const size_t n : {1u, 2u, 17u, 3000u, 70000u}) expect_reference_ranks(floating_columns<float>(n, n + 1));
  std::mt19937 gen(3);
  std::vector<std::vector<int>> ints(3, std::vector<int>(5000));
  std::vector<std::vector<unsigned char>> bytes(2, std::vector<unsigned char>(5000));
  for (size_t i = 0; i < 5000; ++i) {
    ints[0][i] = static_cast<int>(gen());
    ints[1][i] = static_cast<int>(gen() % 7) - 3;
    ints[2][i] = i % 2 ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
    bytes[0][i] = static_cast<unsigned char>(gen());
    bytes[1][i] = 200;
  }
  expect_reference_ranks(ints);
  expect_reference_ranks(bytes);
  auto columns = floating_columns<double>(20000, 9);
  const auto more = floating_columns<double>(20000, 10);
  columns.insert(columns.end(), more.begin(), more.end());
  expect_reference_ranks(columns, 2);
  omp_set_num_threads(1);
}

TEST(FeatureRanks, NaNOrNoInstancesLeaveAFeatureUnranked) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const auto data = data_of<double>({{0.0, -1.0, -0.0, 2.0}, {1.0, nan, 3.0, 3.0}, {3.0, 2.0, 2.0, 1.0}});
  Velmot::FeatureRanks<double> ranks(data);
  ranks.copy_to_rows();
  EXPECT_EQ(ranks.row_ranks(1)[2 * ranks.row_stride()], 0u);
  EXPECT_TRUE(ranks.has_ranks(0));
  EXPECT_FALSE(ranks.has_ranks(1));
  ASSERT_TRUE(ranks.has_ranks(2));
  EXPECT_EQ(std::vector<uint32_t>(ranks.ranks(2), ranks.ranks(2) + 4), (std::vector<uint32_t>{2, 1, 1, 0}));
  EXPECT_FALSE(ranks.has_ranks(3));
  EXPECT_FALSE(Velmot::FeatureRanks<double>(data_of<double>({{}, {}})).has_ranks(0));
  EXPECT_FALSE(Velmot::FeatureRanks<double>().has_ranks(0));
}

}  // namespace
