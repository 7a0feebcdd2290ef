#ifndef VELMOT_LEARN_TREE_SHAP_H
#define VELMOT_LEARN_TREE_SHAP_H

// Exact Shapley values of a forest's output for each instance, with the
// expectations that the trees' own node counts give (the path-dependent
// TreeSHAP algorithm): the value of a set S of known features is the
// tree's output when the instance's values decide the splits on S and
// every other split sends the instance down both sides, each weighted by
// its share of the node's count. The Shapley values of one instance then
// sum to its output less the count-weighted mean of the leaves.
//
// Words:
//   cover      a node's in-bag sample count, bootstrap copies counted
//   path       the distinct features split on from the root to the node
//              being visited, each with its zero fraction (the share of
//              cover that passes its splits when the feature is unknown)
//              and one fraction (1 when the instance's value passes them,
//              else 0), and the permutation weights (pweight) of the
//              subsets of the path's features
//   hot, cold  the child an instance's value goes to, and the other one
//
// Steps, for each tree and instance: walk down from the root, visiting
// both children of every split; extend the path by the split's feature on
// the way down (unwinding the feature first where an ancestor split on it
// too, so that it appears once with its fractions multiplied); at each
// leaf, add to each path feature's value the leaf's output times the
// weight of the subsets in which knowing that feature changes whether the
// leaf is reached. A walk costs O(leaves x depth^2).
//
// Descent is prediction's: a value below the threshold goes left, an equal
// value or NaN goes right.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/forest_arrays_layout.h"

namespace Velmot {

// A forest's node arrays (value: the output column a leaf adds to, checked
// by check_forest_arrays against the output count) with each node's cover
// and each leaf's output.
struct ShapForestView {
  ForestArraysView nodes;
  const int64_t* count;
  const double* leaf_output;
};

namespace tree_shap {

struct PathElement {
  int32_t feature;
  double zero_fraction;
  double one_fraction;
  double pweight;
};

// Deeper trees are refused: the walk keeps a copy of the path per level,
// (depth + 2) (depth + 3) / 2 elements.
constexpr int max_depth = 1024;

inline void extend_path(PathElement* path, int depth, double zero_fraction, double one_fraction, int32_t feature) {
  path[depth] = PathElement{feature, zero_fraction, one_fraction, depth == 0 ? 1.0 : 0.0};
  for (int i = depth - 1; i >= 0; --i) {
    path[i + 1].pweight += one_fraction * path[i].pweight * (i + 1) / static_cast<double>(depth + 1);
    path[i].pweight = zero_fraction * path[i].pweight * (depth - i) / static_cast<double>(depth + 1);
  }
}

// Removes element `index` from a path of depth + 1 elements.
inline void unwind_path(PathElement* path, int depth, int index) {
  const double one_fraction = path[index].one_fraction, zero_fraction = path[index].zero_fraction;
  double next_one_portion = path[depth].pweight;
  for (int i = depth - 1; i >= 0; --i) {
    if (one_fraction != 0) {
      const double kept = path[i].pweight;
      path[i].pweight = next_one_portion * (depth + 1) / ((i + 1) * one_fraction);
      next_one_portion = kept - path[i].pweight * zero_fraction * (depth - i) / static_cast<double>(depth + 1);
    } else {
      path[i].pweight = path[i].pweight * (depth + 1) / (zero_fraction * (depth - i));
    }
  }
  for (int i = index; i < depth; ++i) {
    path[i].feature = path[i + 1].feature;
    path[i].zero_fraction = path[i + 1].zero_fraction;
    path[i].one_fraction = path[i + 1].one_fraction;
  }
}

// The total pweight the path would have with element `index` unwound.
inline double unwound_path_sum(const PathElement* path, int depth, int index) {
  const double one_fraction = path[index].one_fraction, zero_fraction = path[index].zero_fraction;
  double next_one_portion = path[depth].pweight, total = 0;
  for (int i = depth - 1; i >= 0; --i) {
    if (one_fraction != 0) {
      const double share = next_one_portion / ((i + 1) * one_fraction);
      total += share;
      next_one_portion = path[i].pweight - share * zero_fraction * (depth - i);
    } else {
      total += path[i].pweight / (zero_fraction * (depth - i));
    }
  }
  return total * (depth + 1);
}

// One tree's walk for one instance x; phi is num_features x num_outputs.
struct TreeWalk {
  const ShapForestView& forest;
  size_t base;  // the tree's first node
  const double* x;
  double* phi;
  size_t num_outputs;

  void visit(int32_t node, int depth, PathElement* parent_path, double zero_fraction, double one_fraction,
             int32_t feature) const {
    PathElement* path = parent_path + depth + 1;
    std::copy(parent_path, parent_path + depth + 1, path);
    extend_path(path, depth, zero_fraction, one_fraction, feature);
    const size_t at = base + static_cast<size_t>(node);
    const ForestArraysView& nodes = forest.nodes;
    if (nodes.left[at] < 0) {
      const size_t column = static_cast<size_t>(nodes.value[at]);
      for (int i = 1; i <= depth; ++i) {
        const double weight = unwound_path_sum(path, depth, i);
        phi[static_cast<size_t>(path[i].feature) * num_outputs + column] +=
            weight * (path[i].one_fraction - path[i].zero_fraction) * forest.leaf_output[at];
      }
      return;
    }
    const int32_t split = nodes.feature[at];
    const bool left_is_hot = nodes.threshold[at] > x[split];
    const int32_t hot = left_is_hot ? nodes.left[at] : nodes.right[at];
    const int32_t cold = left_is_hot ? nodes.right[at] : nodes.left[at];
    const double cover = static_cast<double>(forest.count[at]);
    double incoming_zero = 1, incoming_one = 1;
    int index = 0;
    while (index <= depth && path[index].feature != split) ++index;
    if (index <= depth) {
      incoming_zero = path[index].zero_fraction;
      incoming_one = path[index].one_fraction;
      unwind_path(path, depth, index);
      --depth;
    }
    const double hot_share = static_cast<double>(forest.count[base + static_cast<size_t>(hot)]) / cover;
    const double cold_share = static_cast<double>(forest.count[base + static_cast<size_t>(cold)]) / cover;
    visit(hot, depth + 1, path, hot_share * incoming_zero, incoming_one, split);
    visit(cold, depth + 1, path, cold_share * incoming_zero, 0, split);
  }
};

// The depth of the deepest tree (children come after their parents).
inline int forest_depth(const ForestArraysView& nodes) {
  int deepest = 0;
  std::vector<int> depth;
  for (size_t k = 0; k < nodes.num_trees; ++k) {
    const size_t base = static_cast<size_t>(nodes.offsets[k]), size = static_cast<size_t>(nodes.offsets[k + 1]) - base;
    depth.assign(size, 0);
    for (size_t i = 0; i < size; ++i) {
      if (nodes.left[base + i] < 0) continue;
      for (const int32_t child : {nodes.left[base + i], nodes.right[base + i]}) {
        depth[static_cast<size_t>(child)] = depth[i] + 1;
      }
      deepest = std::max(deepest, depth[i] + 1);
    }
  }
  return deepest;
}

}  // namespace tree_shap

// Checks a forest for forest_shap_values: its structure, every split's
// feature below num_features, and covers that a walk can divide by (a
// split's cover positive, each child's at most its parent's).
inline void check_shap_forest(const ShapForestView& forest, size_t num_features, size_t num_outputs) {
  const ForestArraysView& nodes = forest.nodes;
  check_forest_arrays(nodes, num_outputs);
  for (size_t k = 0; k < nodes.num_trees; ++k) {
    const size_t base = static_cast<size_t>(nodes.offsets[k]), end = static_cast<size_t>(nodes.offsets[k + 1]);
    for (size_t at = base; at < end; ++at) {
      if (nodes.left[at] < 0) continue;
      const std::string where = "node " + std::to_string(at - base) + " of tree " + std::to_string(k);
      if (nodes.feature[at] < 0 || static_cast<size_t>(nodes.feature[at]) >= num_features) {
        throw Exception(where + " splits on a feature beyond the data's");
      }
      const int64_t left = forest.count[base + static_cast<size_t>(nodes.left[at])];
      const int64_t right = forest.count[base + static_cast<size_t>(nodes.right[at])];
      if (forest.count[at] <= 0 || left < 0 || right < 0 || left > forest.count[at] || right > forest.count[at]) {
        throw Exception(where + " has node counts that do not add up (the forest was saved without them?)");
      }
    }
  }
  if (tree_shap::forest_depth(nodes) > tree_shap::max_depth) {
    throw Exception("a tree is deeper than " + std::to_string(tree_shap::max_depth) +
                    " levels: too deep for SHAP values");
  }
}

// Adds every tree's Shapley values for instances [0, num_instances) into
// phi (num_instances x num_features x num_outputs, row-major), on a team of
// at most `team` workers. read_instance(i, values) writes instance i's
// num_features values as doubles. The forest must have passed
// check_shap_forest.
template <class ReadInstance>
void forest_shap_values(const ShapForestView& forest, int64_t num_instances, size_t num_features, size_t num_outputs,
                        double* phi, int team, ReadInstance&& read_instance) {
  const size_t levels = static_cast<size_t>(tree_shap::forest_depth(forest.nodes)) + 2;
  const size_t path_size = levels * (levels + 1) / 2;
  team = static_cast<int>(std::max<int64_t>(1, std::min<int64_t>(team, num_instances)));
  // Every worker's buffers are allocated before the team.
  std::vector<std::vector<tree_shap::PathElement>> paths(static_cast<size_t>(team));
  std::vector<std::vector<double>> values(static_cast<size_t>(team));
  for (int t = 0; t < team; ++t) {
    paths[static_cast<size_t>(t)].resize(path_size);
    values[static_cast<size_t>(t)].resize(num_features);
  }
  for_each_index(num_instances, team, [&](int64_t i, const Worker& w) {
    double* x = values[static_cast<size_t>(w.number)].data();
    read_instance(i, x);
    double* out = phi + static_cast<size_t>(i) * num_features * num_outputs;
    for (size_t k = 0; k < forest.nodes.num_trees; ++k) {
      const tree_shap::TreeWalk walk{forest, static_cast<size_t>(forest.nodes.offsets[k]), x, out, num_outputs};
      walk.visit(0, 0, paths[static_cast<size_t>(w.number)].data(), 1, 1, -1);
    }
  });
}

}  // namespace Velmot

#endif
