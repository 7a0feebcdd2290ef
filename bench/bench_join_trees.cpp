// Joining a forest's packed trees into one set of node arrays, as every fit
// does once its trees are grown: 100 trees of 126,001 nodes (W5's forest,
// 12.6 million nodes, 550 MB of arrays) on one and on two threads. Most of
// the time is the first writes to the arrays' fresh pages. Prints figures;
// asserts nothing.
//
//   build/<dir>/bench/velmot_bench_join_trees

#include <benchmark/benchmark.h>

#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "velmot/learn/packed_tree.h"

namespace {

// A complete tree of n nodes (n odd) in the breadth-first numbering
// flatten_tree gives, with W5-like fields: most leaves pure.
Velmot::NodeArrays<double> complete_tree(size_t n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  Velmot::NodeArrays<double> tree;
  const size_t internal = (n - 1) / 2;
  for (size_t i = 0; i < n; ++i) {
    const bool split = i < internal;
    tree.left.push_back(split ? static_cast<int32_t>(2 * i + 1) : -1);
    tree.right.push_back(split ? static_cast<int32_t>(2 * i + 2) : -1);
    tree.feature.push_back(split ? static_cast<int32_t>(gen() % 40) : -1);
    tree.threshold.push_back(split ? static_cast<double>(gen() % 1000) / 7 : std::numeric_limits<double>::quiet_NaN());
    tree.value.push_back(split ? -2.0 : static_cast<double>(gen() % 1000) / 3);
    tree.count.push_back(static_cast<int64_t>(split ? 2 + gen() % 600 : 1 + gen() % 3));
    tree.impurity.push_back(split || gen() % 4 == 0 ? static_cast<double>(gen() % 100) / 9 : 0.0);
  }
  tree.offsets.push_back(static_cast<int64_t>(n));
  return tree;
}

void BM_join_packed_trees(benchmark::State& state) {
  static const std::vector<Velmot::NodeArrays<double>> shapes = {complete_tree(126001, 1), complete_tree(126001, 2)};
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<Velmot::PackedTree<double>> trees;
    for (size_t k = 0; k < 100; ++k) trees.emplace_back(shapes[k % shapes.size()]);
    Velmot::return_free_memory();
    state.ResumeTiming();
    Velmot::NodeArrays<double> forest = Velmot::join_packed_trees(trees, threads);
    benchmark::DoNotOptimize(forest.left.data());
    state.PauseTiming();
    forest = Velmot::NodeArrays<double>();
    state.ResumeTiming();
  }
}

}  // namespace

BENCHMARK(BM_join_packed_trees)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(10);

BENCHMARK_MAIN();
