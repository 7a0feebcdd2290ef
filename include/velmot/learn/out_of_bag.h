#ifndef VELMOT_LEARN_OUT_OF_BAG_H
#define VELMOT_LEARN_OUT_OF_BAG_H

// Out-of-bag votes of a forest being learnt: for every training instance,
// how many of the trees whose bootstrap sample missed it voted for each
// class. Each tree adds its votes as soon as it is grown, from its own
// sample, so no per-tree record of samples is kept; votes are integers, so
// the tally is the same whatever order the trees finish in.
//
// A tree's out-of-bag instances go down it slice by slice (send_down_tree),
// each column read forwards, over the values the grower saw.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "velmot/learn/forest_arrays.h"

namespace Velmot {

// Sends the instances position[0 .. n) (ascending, distinct; weight[p] goes
// with position[p], and weight may be empty) down the one tree in `tree`,
// node by node in its breadth-first order: visit(node, first, last) sees
// the node's slice [first, last) of position and weight before the node's
// split partitions it stably (a value below the threshold goes left), so
// every slice stays ascending and each column is read forwards.
template <class D, class Visit>
void send_down_tree(const ForestArrays& tree, const D& data, std::vector<uint32_t>& position,
                    std::vector<uint32_t>& weight, Visit&& visit) {
  const size_t num_nodes = tree.num_nodes();
  const bool weighted = !weight.empty();
  std::vector<size_t> begin(num_nodes, 0), end(num_nodes, 0);
  end[0] = position.size();
  std::vector<uint32_t> spare_position(position.size()), spare_weight(weighted ? position.size() : 0);
  for (size_t node = 0; node < num_nodes; ++node) {
    const size_t first = begin[node], last = end[node];
    visit(node, first, last);
    const int32_t left = tree.left[node], right = tree.right[node];
    if (left < 0 || right < 0) continue;
    const auto* column = data.column(static_cast<size_t>(tree.feature[node]));
    const double threshold = tree.threshold[node];
    size_t kept = first, sent = 0;
    for (size_t p = first; p < last; ++p) {
      if (threshold > static_cast<double>(column[position[p]])) {
        if (weighted) weight[kept] = weight[p];
        position[kept++] = position[p];
      } else {
        if (weighted) spare_weight[sent] = weight[p];
        spare_position[sent++] = position[p];
      }
    }
    std::copy(spare_position.begin(), spare_position.begin() + static_cast<std::ptrdiff_t>(sent),
              position.begin() + static_cast<std::ptrdiff_t>(kept));
    if (weighted) {
      std::copy(spare_weight.begin(), spare_weight.begin() + static_cast<std::ptrdiff_t>(sent),
                weight.begin() + static_cast<std::ptrdiff_t>(kept));
    }
    begin[static_cast<size_t>(left)] = first;
    end[static_cast<size_t>(left)] = kept;
    begin[static_cast<size_t>(right)] = kept;
    end[static_cast<size_t>(right)] = last;
  }
}

class OutOfBagVotes {
public:
  OutOfBagVotes() = default;
  OutOfBagVotes(size_t num_instances, size_t num_classes)
      : num_instances(num_instances),
        num_classes(num_classes),
        votes(new std::atomic<int32_t>[num_instances * num_classes]) {
    for (size_t v = 0; v < num_instances * num_classes; ++v) votes[v].store(0, std::memory_order_relaxed);
  }

  // Adds the votes of the one tree in `tree`, grown from the sample
  // `indices` (instance numbers of data, repeats included), for every
  // instance the sample missed. Safe to call from several threads at once.
  template <class D, class Index>
  void add_tree(const ForestArrays& tree, const D& data, const std::vector<Index>& indices) {
    std::vector<char> in_bag(num_instances, 0);
    for (const Index i : indices) in_bag[static_cast<size_t>(i)] = 1;
    std::vector<uint32_t> position, no_weight;
    for (size_t i = 0; i < num_instances; ++i) {
      if (!in_bag[i]) position.push_back(static_cast<uint32_t>(i));
    }
    send_down_tree(tree, data, position, no_weight, [&](size_t node, size_t first, size_t last) {
      // A split, or the bare root of an empty sample, casts no vote.
      if (tree.left[node] >= 0 || tree.value[node] < 0) return;
      const size_t label = static_cast<size_t>(tree.value[node]);
      for (size_t p = first; p < last; ++p) {
        votes[position[p] * num_classes + label].fetch_add(1, std::memory_order_relaxed);
      }
    });
  }

  // The tally, row-major: instance i's votes for class c at i * num_classes + c.
  std::vector<int32_t> tally() const {
    std::vector<int32_t> out(num_instances * num_classes);
    for (size_t v = 0; v < out.size(); ++v) out[v] = votes[v].load(std::memory_order_relaxed);
    return out;
  }

private:
  size_t num_instances = 0;
  size_t num_classes = 0;
  std::unique_ptr<std::atomic<int32_t>[]> votes;
};

}  // namespace Velmot

#endif
