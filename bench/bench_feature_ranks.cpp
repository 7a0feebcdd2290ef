// Ranking the features of a data set, as learn_forest does once per call:
// FeatureRanks (sorting (value, instance) pairs) beside the indirect sort it
// replaced (instance numbers compared through the column). 100,000 x 40
// uniform doubles, one thread. Prints figures; asserts nothing.
//
//   build/<dir>/bench/velmot_bench_feature_ranks

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"

namespace {

const Velmot::MemoryDataSet<double, int>& uniform_data() {
  static const Velmot::MemoryDataSet<double, int> data = [] {
    Velmot::MemoryDataSet<double, int> d(40);
    std::mt19937_64 gen(7);
    for (auto& column : d.features) {
      column.resize(100000);
      for (double& v : column) v = static_cast<double>(gen() >> 11) * 0x1.0p-53;
    }
    d.labels.assign(100000, 0);
    return d;
  }();
  return data;
}

void BM_feature_ranks(benchmark::State& state) {
  const auto& data = uniform_data();
  omp_set_num_threads(1);
  for (auto _ : state) {
    Velmot::FeatureRanks<double> ranks(data);
    benchmark::DoNotOptimize(ranks.ranks(0));
  }
}

// The former way: sort instance numbers by their values.
void BM_indirect_sort_ranks(benchmark::State& state) {
  const auto& data = uniform_data();
  std::vector<uint32_t> order(data.get_num_instances());
  std::vector<uint32_t> rank(order.size());
  for (auto _ : state) {
    for (size_t j = 0; j < data.get_num_features(); ++j) {
      const double* column = data.column(j);
      std::iota(order.begin(), order.end(), 0u);
      std::sort(order.begin(), order.end(), [column](uint32_t a, uint32_t b) { return column[a] < column[b]; });
      uint32_t current = 0;
      rank[order[0]] = 0;
      for (size_t k = 1; k < order.size(); ++k) {
        if (column[order[k]] != column[order[k - 1]]) ++current;
        rank[order[k]] = current;
      }
      benchmark::DoNotOptimize(rank.data());
    }
  }
}

}  // namespace

BENCHMARK(BM_feature_ranks)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();
BENCHMARK(BM_indirect_sort_ranks)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

BENCHMARK_MAIN();
