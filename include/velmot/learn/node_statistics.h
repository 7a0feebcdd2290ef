#ifndef VELMOT_LEARN_NODE_STATISTICS_H
#define VELMOT_LEARN_NODE_STATISTICS_H

// In-bag counts and impurities of one freshly grown tree: every drawn
// instance (each bootstrap copy on its own) is passed down the tree from
// the root, adding one to the count and to its label's tally at every node
// on its path. The values read are the ones the grower saw (the training
// set after imputation), and the descent follows the grower's split rule,
// so a split's count is the sum of its children's and the root's is the
// sample size.
//
// Impurity of a node with class shares p_c: Gini, 1 - sum p_c^2, for the
// Gini criterion; entropy in bits, -sum p_c log2 p_c, for the criteria built
// on information (information gain, gain ratio). 0 for a node no instance
// reaches.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "velmot/learn/forest_arrays.h"
#include "velmot/stats/criteria.h"

namespace Velmot {

enum class ImpurityMeasure { gini, entropy };

template <class Criterion>
constexpr ImpurityMeasure impurity_measure_of() {
  return std::is_same<Criterion, TwoSplitGiniImpurity>::value ? ImpurityMeasure::gini : ImpurityMeasure::entropy;
}

inline double impurity_of(const int64_t* tally, size_t num_classes, int64_t total, ImpurityMeasure measure) {
  if (total == 0) return 0.0;
  double sum = 0.0;
  for (size_t c = 0; c < num_classes; ++c) {
    if (tally[c] == 0) continue;
    const double share = static_cast<double>(tally[c]) / static_cast<double>(total);
    sum += measure == ImpurityMeasure::gini ? share * share : -share * std::log2(share);
  }
  return measure == ImpurityMeasure::gini ? 1.0 - sum : sum;
}

// Fills count and impurity of the one tree in `tree` from the sample
// `indices` (instance numbers of D, repeats included). D is a MemoryDataSet
// with labels in [0, num_classes).
template <class D, class Index>
void fill_node_statistics(ForestArrays& tree, const D& data, const std::vector<Index>& indices,
                          ImpurityMeasure measure) {
  const size_t num_nodes = tree.num_nodes();
  const size_t nc = data.get_num_classes();
  std::vector<int64_t> tallies(num_nodes * nc, 0);
  std::vector<int64_t>& count = tree.count;
  count.assign(num_nodes, 0);
  for (const Index index : indices) {
    const size_t i = static_cast<size_t>(index);
    const size_t label = static_cast<size_t>(data.get_label(i));
    size_t node = 0;
    for (;;) {
      ++count[node];
      ++tallies[node * nc + label];
      const int32_t left = tree.left[node], right = tree.right[node];
      if (left < 0 && right < 0) break;
      const double value = static_cast<double>(data(i, static_cast<size_t>(tree.feature[node])));
      const int32_t next = tree.threshold[node] > value ? left : right;
      if (next < 0) break;
      node = static_cast<size_t>(next);
    }
  }
  tree.impurity.resize(num_nodes);
  for (size_t node = 0; node < num_nodes; ++node) {
    tree.impurity[node] = impurity_of(&tallies[node * nc], nc, count[node], measure);
  }
}

}  // namespace Velmot

#endif
