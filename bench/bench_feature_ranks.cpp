// Ranking the features of a data set, as learn_forest does once per call:
// FeatureRanks (a radix sort of order-preserving keys) beside the sort of
// (value, instance) pairs it replaced. 100,000 x 40 uniform doubles (and
// the same as floats), one thread. Prints figures; asserts nothing.
//
//   build/<dir>/bench/velmot_bench_feature_ranks

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"

namespace {

template <class F>
const Velmot::MemoryDataSet<F, int>& uniform_data() {
  static const Velmot::MemoryDataSet<F, int> data = [] {
    Velmot::MemoryDataSet<F, int> d(40);
    std::mt19937_64 gen(7);
    for (auto& column : d.features) {
      column.resize(100000);
      for (F& v : column) v = static_cast<F>(static_cast<double>(gen() >> 11) * 0x1.0p-53);
    }
    d.labels.assign(100000, 0);
    return d;
  }();
  return data;
}

template <class F>
void BM_feature_ranks(benchmark::State& state) {
  const auto& data = uniform_data<F>();
  omp_set_num_threads(1);
  for (auto _ : state) {
    Velmot::FeatureRanks<F> ranks(data);
    benchmark::DoNotOptimize(ranks.rank(0, 0));
  }
}

// The former way: sort (value, instance) pairs, then rank and fill the
// table of values in instance order.
void BM_pair_sort_ranks(benchmark::State& state) {
  const auto& data = uniform_data<double>();
  std::vector<std::pair<double, uint32_t>> order(data.get_num_instances());
  std::vector<uint32_t> rank(order.size());
  std::vector<double> values;
  for (auto _ : state) {
    for (size_t j = 0; j < data.get_num_features(); ++j) {
      const double* column = data.column(j);
      for (size_t i = 0; i < order.size(); ++i) order[i] = {column[i], static_cast<uint32_t>(i)};
      std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
      uint32_t current = 0;
      rank[order[0].second] = 0;
      for (size_t k = 1; k < order.size(); ++k) {
        if (order[k].first != order[k - 1].first) ++current;
        rank[order[k].second] = current;
      }
      values.assign(current + 1, 0.0);
      for (size_t i = 0; i < order.size(); ++i) values[rank[i]] = column[i];
      benchmark::DoNotOptimize(values.data());
    }
  }
}

}  // namespace

BENCHMARK(BM_feature_ranks<double>)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_feature_ranks<float>)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_pair_sort_ranks)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

BENCHMARK_MAIN();
