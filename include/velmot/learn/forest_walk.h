#ifndef VELMOT_LEARN_FOREST_WALK_H
#define VELMOT_LEARN_FOREST_WALK_H

// Where samples go in a forest held as node arrays (ForestArraysView,
// learn/forest_arrays_layout.h), rather than what it predicts: the leaf each
// sample reaches in each tree, or every node on its way there. Nodes are
// numbered as the arrays number them (within a tree from its root at 0;
// forest-wide as offsets[k] plus that number), and a walk steps as
// prediction does: a value below the threshold goes left, an equal value
// or NaN goes right.
//
// The forest must have passed check_forest_arrays; check_walk_features
// refuses a split on a feature the samples lack before any walk.
// ValueOf: value_of(i, f) is sample i's feature f as a double.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/forest_arrays_layout.h"

namespace Velmot {

template <class Value>
void check_walk_features(const NodeArraysView<Value>& forest, size_t num_features) {
  for (size_t node = 0; node < forest.num_nodes; ++node) {
    const int32_t f = forest.feature[node];
    if (forest.left[node] >= 0 && (f < 0 || static_cast<size_t>(f) >= num_features)) {
      throw Exception("tree node tests feature " + std::to_string(f) + " but the data has " +
                      std::to_string(num_features) + " features");
    }
  }
}

namespace forest_walk_detail {

// Calls visit(node) for every node from the root of tree k to the leaf
// sample i reaches; returns that leaf.
template <class Value, class ValueOf, class Visit>
int32_t walk(const NodeArraysView<Value>& forest, size_t k, size_t i, const ValueOf& value_of, Visit&& visit) {
  const size_t base = static_cast<size_t>(forest.offsets[k]);
  int32_t node = 0;
  for (;;) {
    const size_t at = base + static_cast<size_t>(node);
    visit(at);
    if (forest.left[at] < 0) return node;
    node = forest.threshold[at] > value_of(i, forest.feature[at]) ? forest.left[at] : forest.right[at];
  }
}

// Runs body(i) for every sample on a team, in contiguous blocks.
template <class Body>
void for_each_sample(size_t num_samples, int num_threads, Body&& body) {
  run_team(num_threads, [&](const Worker& w) {
    const Block block = block_of(static_cast<int64_t>(num_samples), w);
    for (int64_t i = block.first; i < block.last && !w.stopped(); ++i) body(static_cast<size_t>(i));
  });
}

}  // namespace forest_walk_detail

// leaves[i * num_trees + k] = the leaf sample i reaches in tree k.
template <class Value, class ValueOf>
void find_leaves(const NodeArraysView<Value>& forest, size_t num_samples, const ValueOf& value_of, int num_threads,
                 int32_t* leaves) {
  forest_walk_detail::for_each_sample(num_samples, num_threads, [&](size_t i) {
    for (size_t k = 0; k < forest.num_trees; ++k) {
      leaves[i * forest.num_trees + k] = forest_walk_detail::walk(forest, k, i, value_of, [](size_t) {});
    }
  });
}

// Every sample's nodes, tree after tree, each path from root to leaf, as a
// sparse row structure: sample i's forest-wide node numbers are
// nodes[rows[i] .. rows[i + 1]).
struct DecisionPaths {
  std::vector<int64_t> rows;
  std::vector<int64_t> nodes;
};

// Two walks per sample: one counts its nodes, so that every sample's run
// of the output is known before the second writes it, in parallel.
template <class Value, class ValueOf>
DecisionPaths find_decision_paths(const NodeArraysView<Value>& forest, size_t num_samples, const ValueOf& value_of,
                                  int num_threads) {
  DecisionPaths paths;
  paths.rows.assign(num_samples + 1, 0);
  forest_walk_detail::for_each_sample(num_samples, num_threads, [&](size_t i) {
    int64_t length = 0;
    for (size_t k = 0; k < forest.num_trees; ++k) {
      forest_walk_detail::walk(forest, k, i, value_of, [&](size_t) { ++length; });
    }
    paths.rows[i + 1] = length;
  });
  for (size_t i = 0; i < num_samples; ++i) paths.rows[i + 1] += paths.rows[i];
  paths.nodes.resize(static_cast<size_t>(paths.rows[num_samples]));
  forest_walk_detail::for_each_sample(num_samples, num_threads, [&](size_t i) {
    int64_t* out = paths.nodes.data() + paths.rows[i];
    for (size_t k = 0; k < forest.num_trees; ++k) {
      forest_walk_detail::walk(forest, k, i, value_of, [&](size_t at) { *out++ = static_cast<int64_t>(at); });
    }
  });
  return paths;
}

}  // namespace Velmot

#endif
