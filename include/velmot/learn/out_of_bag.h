#ifndef VELMOT_LEARN_OUT_OF_BAG_H
#define VELMOT_LEARN_OUT_OF_BAG_H

// Out-of-bag votes of a forest being learnt: for every training instance,
// how many of the trees whose bootstrap sample missed it voted for each
// class. Each tree adds its votes as soon as it is grown, from its own
// sample, so no per-tree record of samples is kept; votes are integers, so
// the tally is the same whatever order the trees finish in.
//
// A tree's out-of-bag instances go down it as its in-bag ones do for the
// node statistics (send_down_tree, learn/node_statistics.h): slice by slice,
// each column read forwards, over the values the grower saw.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "velmot/learn/forest_arrays.h"
#include "velmot/learn/node_statistics.h"

namespace Velmot {

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
