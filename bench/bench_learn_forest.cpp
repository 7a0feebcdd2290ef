// Learns a 100-tree forest on synthetic data (100,000 instances x 40
// float64 features, 3 classes, 6 features per split, full depth, 2 threads)
// and reports seconds per tree. Prints figures; asserts nothing.
//
//   cmake -S . -B build/bench -G Ninja -DVELMOT_BUILD_BENCH=ON
//   cmake --build build/bench --target velmot_bench_learn_forest
//   build/bench/bench/velmot_bench_learn_forest

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdint>
#include <random>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_forest.h"
#include "velmot/stats/criteria.h"

namespace {

constexpr size_t num_instances = 100000;
constexpr size_t num_features = 40;
constexpr int num_trees = 100;

// Uniform features; the class is decided by a few of them, with 10% of the
// labels replaced by noise so that full-depth trees grow large.
template <class F>
Velmot::MemoryDataSet<F, int> synthetic_data(uint64_t seed, bool integer_valued) {
  std::mt19937_64 gen(seed);
  auto uniform = [&gen]() { return static_cast<double>(gen() >> 11) * 0x1.0p-53; };
  Velmot::MemoryDataSet<F, int> data(num_features);
  data.nc = 3;
  for (auto& column : data.features) column.resize(num_instances);
  data.labels.resize(num_instances);
  for (size_t i = 0; i < num_instances; ++i) {
    for (size_t j = 0; j < num_features; ++j) {
      const double u = uniform();
      data.features[j][i] = integer_valued ? static_cast<F>(static_cast<int>(u * 256)) : static_cast<F>(u);
    }
    const double a = static_cast<double>(data.features[0][i]) + 0.5 * static_cast<double>(data.features[1][i]);
    const double b = static_cast<double>(data.features[2][i]) - static_cast<double>(data.features[3][i]);
    int label = a > (integer_valued ? 192 : 0.75) ? 2 : (b > 0 ? 1 : 0);
    if (uniform() < 0.1) label = static_cast<int>(gen() % 3);
    data.labels[i] = label;
  }
  return data;
}

template <class F, class Criterion>
void learn_forest_of_100(benchmark::State& state, bool integer_valued) {
  const Velmot::MemoryDataSet<F, int> data = synthetic_data<F>(2024, integer_valued);
  omp_set_num_threads(2);
  size_t nodes = 0;
  for (auto _ : state) {
    Velmot::init_pool("", 1);
    std::vector<double> importances(num_features, 0.0);
    std::vector<Velmot::Node<int>*> forest =
        Velmot::learn_forest(data, num_trees, 1.0, 6, 0, 1, Criterion(), true, importances);
    nodes = 0;
    for (Velmot::Node<int>* tree : forest) {
      Velmot::VectorizedTree<int> flat;
      flat.root_to_vector(tree);
      nodes += flat.get_num_nodes();
      delete tree;
    }
  }
  state.counters["s_per_tree"] = benchmark::Counter(
      static_cast<double>(num_trees), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["nodes_per_tree"] = static_cast<double>(nodes) / num_trees;
}

void BM_float64_gini(benchmark::State& state) {
  learn_forest_of_100<double, Velmot::TwoSplitGiniImpurity>(state, false);
}
void BM_float64_infogain(benchmark::State& state) {
  learn_forest_of_100<double, Velmot::TwoSplitInfoGain>(state, false);
}
void BM_byte_gini(benchmark::State& state) {
  learn_forest_of_100<unsigned char, Velmot::TwoSplitGiniImpurity>(state, true);
}

}  // namespace

BENCHMARK(BM_float64_gini)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_float64_infogain)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_byte_gini)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

BENCHMARK_MAIN();
