// FeatureRanks against a comparison-sort ranking: the same ranks (in the
// columns and in the instance-major copy) and the same value of each rank
// (read at instances, and from the table of a feature of few values), bit
// for bit, on data that reaches every path of the radix sort (skipped digits,
// runs of equal high halves, both zeros, ties).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/feature_ranks.h"

namespace {

template <class F>
void expect_reference_ranks(const std::vector<std::vector<F>>& columns, int threads = 1) {
  const auto data = VelmotTest::columns<F, int>(columns, std::vector<int>(columns[0].size(), 0));
  VelmotTest::ThreadCount count(threads);
  Velmot::FeatureRanks<F> ranks(data);
  ranks.copy_to_rows();
  // The columns are gone once the rows exist: reading them is an error, not freed memory.
  EXPECT_THROW(ranks.visit_ranks(0, [](const auto* column) { return uint32_t{column[0]}; }), std::logic_error);
  for (size_t j = 0; j < columns.size(); ++j) {
    SCOPED_TRACE(j);
    // Dense ranks; the value of a rank is that of its highest instance.
    std::vector<size_t> order(columns[j].size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return columns[j][a] < columns[j][b]; });
    std::vector<uint32_t> expected(order.size(), 0);
    for (size_t k = 1; k < order.size(); ++k) {
      expected[order[k]] = expected[order[k - 1]] + (columns[j][order[k]] != columns[j][order[k - 1]]);
    }
    std::vector<F> values(expected[order.back()] + 1);
    for (size_t i = 0; i < expected.size(); ++i) values[expected[i]] = columns[j][i];
    ASSERT_TRUE(ranks.has_ranks(j));
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_EQ(ranks.rank(j, i), expected[i]);
      ASSERT_EQ(ranks.row_ranks(j)[i * ranks.row_stride()], expected[i]);
    }
    ASSERT_EQ(ranks.num_ranks(j), values.size());
    // Bytes, not values: the sign of a zero counts. Read at each rank's
    // first instance, whose zero may differ from the last one's.
    std::vector<F> found(values.size());
    for (size_t i = expected.size(); i-- > 0;) found[expected[i]] = ranks.value_at(columns[j].data(), j, i);
    ASSERT_EQ(std::memcmp(values.data(), found.data(), values.size() * sizeof(F)), 0);
    // A feature of few values keeps the same values by rank.
    ASSERT_EQ(ranks.has_values_by_rank(j), values.size() <= Velmot::FeatureRanks<F>::few_values_limit);
    if (!ranks.has_values_by_rank(j)) continue;
    for (uint32_t r = 0; r < values.size(); ++r) found[r] = ranks.value_of_rank(j, r);
    ASSERT_EQ(std::memcmp(values.data(), found.data(), values.size() * sizeof(F)), 0);
  }
}

template <class F>
std::vector<std::vector<F>> floating_columns(size_t n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> normal;
  std::vector<std::vector<F>> columns(6, std::vector<F>(n));
  for (size_t i = 0; i < n; ++i) {
    const double x = normal(gen);
    columns[0][i] = static_cast<F>(x);
    columns[1][i] = static_cast<F>(std::round(x * 4) / 4);   // ties, zeros among them
    columns[2][i] = static_cast<F>(gen() % 2 ? 0.0 : -0.0);  // only the two zeros
    // Neighbours that differ in the low bits only: long runs of one high half.
    columns[3][i] = static_cast<F>(1.0 + static_cast<double>(gen() % 5000) * std::numeric_limits<double>::epsilon());
    columns[4][i] = static_cast<F>(3.5);                              // every digit skipped
    columns[5][i] = static_cast<F>(x > 0 ? x * 1e300 : -x * 1e-310);  // large, tiny and subnormal
  }
  const F extremes[] = {std::numeric_limits<F>::infinity(), -std::numeric_limits<F>::infinity(),
                        std::numeric_limits<F>::lowest(), -std::numeric_limits<F>::denorm_min(), -F(0)};
  for (size_t k = 0; k < std::size(extremes) && k < n; ++k) columns[0][gen() % n] = extremes[k];
  return columns;
}

TEST(FeatureRanks, EveryTypeMatchesTheComparisonSortOnAnyThreadCount) {
  for (const size_t n : {1u, 17u, 3000u, 80000u}) expect_reference_ranks(floating_columns<double>(n, n));
  for (const size_t n : {2u, 3000u, 70000u}) expect_reference_ranks(floating_columns<float>(n, n + 1));
  expect_reference_ranks(floating_columns<double>(20000, 9), 2);
  std::mt19937 gen(3);
  std::vector<std::vector<int>> ints(2, std::vector<int>(5000));
  std::vector<std::vector<unsigned char>> bytes(1, std::vector<unsigned char>(5000));
  for (size_t i = 0; i < 5000; ++i) {
    ints[0][i] = static_cast<int>(gen());
    ints[1][i] = i % 2 ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
    bytes[0][i] = static_cast<unsigned char>(gen());
  }
  expect_reference_ranks(ints);
  expect_reference_ranks(bytes);
}

}  // namespace
