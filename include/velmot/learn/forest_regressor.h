#ifndef VELMOT_LEARN_FOREST_REGRESSOR_H
#define VELMOT_LEARN_FOREST_REGRESSOR_H

// Prediction of a regression forest: the mean of the leaf values the trees
// reach, in double. Each instance's leaf values are added in tree order and
// the sum divided by the number of trees, so a prediction does not depend
// on the thread count or on the other instances passed with it.
//
// The forest is walked in its flat form (learn/flat_forest.h: a leaf holds
// its value in its threshold) over blocks of instances shared among the
// workers, three trees at a time over groups of four instances in lockstep.
// Regression trees grown to leaves of one sample are large (W5: 126,000
// nodes, 2 MB a tree), so their deep nodes are cache misses: each block is
// as large as one worker's share of the instances (up to 2^20 values) so
// that the forest is read from memory as few times as possible. Measured on
// W5's forest, CPU for 50,000 instances on one thread: two trees by eight
// instances over blocks of 2^19 values 0.44-0.46 s; three by four over
// blocks of 2^20 values 0.38-0.41 s, over one block 0.31-0.33 s.
//
// D, the data set, needs get_num_instances(), get_num_features() and
// operator()(i, j).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_classifier.h"

namespace Velmot {

namespace forest_regression_detail {

constexpr int trees_per_pass = 3;
constexpr size_t most_block_values = size_t(1) << 20;

// Adds the leaf values of `trees` trees (roots[0 .. trees)) to sums, tree
// by tree, for `count` instances gathered as forest_prediction::gather_block
// does; false at a missing child.
template <int trees>
bool add_leaf_values(const FlatNode* const* roots, const double* values, size_t stride, int64_t count, double* sums) {
  constexpr int group = 4;
  const FlatNode* leaves[group * trees];
  int64_t i = 0;
  for (; i + group <= count; i += group) {
    flat_forest::find_leaves<group, trees>(roots, values + static_cast<size_t>(i) * stride, stride, leaves);
    for (int k = 0; k < group; ++k) {
      for (int t = 0; t < trees; ++t) {
        const FlatNode* leaf = leaves[t * group + k];
        if (flat_forest::is_stand_in(*leaf)) return false;
        sums[i + k] += leaf->threshold;
      }
    }
  }
  for (; i < count; ++i) {
    const double* instance_values = values + static_cast<size_t>(i) * stride;
    auto value_of = [instance_values](int32_t f) { return instance_values[f]; };
    for (int t = 0; t < trees; ++t) {
      const FlatNode* leaf = flat_forest::find_leaf(roots[t], value_of);
      if (flat_forest::is_stand_in(*leaf)) return false;
      sums[i] += leaf->threshold;
    }
  }
  return true;
}

}  // namespace forest_regression_detail

// means[i] = the mean leaf value of instance i over the forest's trees;
// means must hold data.get_num_instances() entries.
template <class D>
void predict_means(const FlatForest& trees, const D& data, double* means) {
  if (trees.empty()) throw Exception("forest is empty: cannot predict");
  trees.check_features(data.get_num_features());
  const int64_t num_instances = static_cast<int64_t>(data.get_num_instances());
  if (num_instances == 0) return;
  const size_t stride = data.get_num_features() + 1;
  const int team = default_team_size();
  const size_t cap = forest_regression_detail::most_block_values;
  const int64_t block_size =
      std::max<int64_t>(64, std::min<int64_t>((num_instances + team - 1) / team, static_cast<int64_t>(cap / stride)));
  const int64_t num_blocks = (num_instances + block_size - 1) / block_size;
  const size_t num_trees = trees.size();
  const size_t value_cells = static_cast<size_t>(block_size) * stride;
  std::vector<double> all_values(static_cast<size_t>(team) * value_cells);
  for_each_index(num_blocks, team, [&](int64_t b, const Worker& w) {
    double* const values = all_values.data() + static_cast<size_t>(w.number) * value_cells;
    const int64_t begin = b * block_size;
    const int64_t end = std::min(begin + block_size, num_instances);
    forest_prediction::gather_block(data, static_cast<size_t>(begin), static_cast<size_t>(end), stride, values);
    double* const sums = means + begin;
    std::fill(sums, sums + (end - begin), 0.0);
    for (size_t t = 0; t < num_trees && !w.stopped(); t += forest_regression_detail::trees_per_pass) {
      const FlatNode* roots[forest_regression_detail::trees_per_pass];
      const size_t pass = std::min<size_t>(forest_regression_detail::trees_per_pass, num_trees - t);
      for (size_t u = 0; u < pass; ++u) roots[u] = trees.tree(t + u);
      const double* first = values + 1;
      const int64_t count = end - begin;
      const bool reached_leaves =
          pass == 3   ? forest_regression_detail::add_leaf_values<3>(roots, first, stride, count, sums)
          : pass == 2 ? forest_regression_detail::add_leaf_values<2>(roots, first, stride, count, sums)
                      : forest_regression_detail::add_leaf_values<1>(roots, first, stride, count, sums);
      if (!reached_leaves) throw forest_prediction::missing_child();
    }
    for (double* sum = sums; sum != sums + (end - begin); ++sum) *sum /= static_cast<double>(num_trees);
  });
}

}  // namespace Velmot

#endif
