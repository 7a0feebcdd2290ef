#ifndef VELMOT_LEARN_OUT_OF_BAG_H
#define VELMOT_LEARN_OUT_OF_BAG_H

// Out-of-bag estimates of a forest being learnt, from the trees whose
// bootstrap sample missed each training instance. Each tree adds its part
// as soon as it is grown, from its own sample, so no per-tree record of
// samples is kept, and the result is the same whatever order the trees
// finish in:
//   OutOfBagVotes (classification): per instance and class, the votes;
//     integers, added in any order;
//   OutOfBagMeans (regression): per instance, the sum of the trees'
//     predictions and their number. Sums of doubles depend on their order,
//     so a finished tree's predictions wait until every earlier tree's are
//     added, and trees are added in tree order; only the trees that finish
//     ahead of an unfinished one wait, a few with a dynamic schedule.
// OutOfBagOf<L> is the one for labels of type L. Both offer
// add_tree(j, tree, data, indices) for tree j of the call and
// take(counts, sums): the votes (n x classes) and no sums, or the trees per
// instance and the sums.
//
// A tree's out-of-bag instances go down it slice by slice (send_down_tree),
// each column read forwards, over the values the grower saw.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/learn/forest_arrays.h"

namespace Velmot {

// Sends the instances position[0 .. n) (ascending, distinct; weight[p] goes
// with position[p], and weight may be empty) down the one tree in `tree`
// (node arrays of any leaf value), node by node in its breadth-first order: visit(node, first, last) sees
// the node's slice [first, last) of position and weight before the node's
// split partitions it stably (a value below the threshold goes left), so
// every slice stays ascending and each column is read forwards.
template <class Tree, class D, class Visit>
void send_down_tree(const Tree& tree, const D& data, std::vector<uint32_t>& position, std::vector<uint32_t>& weight,
                    Visit&& visit) {
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

namespace out_of_bag_detail {

// The instances the sample `indices` (repeats included) missed, ascending.
template <class Index>
std::vector<uint32_t> missed_by(const std::vector<Index>& indices, size_t num_instances) {
  std::vector<char> in_bag(num_instances, 0);
  for (const Index i : indices) in_bag[static_cast<size_t>(i)] = 1;
  std::vector<uint32_t> missed;
  for (size_t i = 0; i < num_instances; ++i) {
    if (!in_bag[i]) missed.push_back(static_cast<uint32_t>(i));
  }
  return missed;
}

}  // namespace out_of_bag_detail

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
  void add_tree(int64_t /*j*/, const ForestArrays& tree, const D& data, const std::vector<Index>& indices) {
    std::vector<uint32_t> position = out_of_bag_detail::missed_by(indices, num_instances), no_weight;
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
  void take(std::vector<int32_t>& counts, std::vector<double>& /*sums*/) const {
    counts.resize(num_instances * num_classes);
    for (size_t v = 0; v < counts.size(); ++v) counts[v] = votes[v].load(std::memory_order_relaxed);
  }

private:
  size_t num_instances = 0;
  size_t num_classes = 0;
  std::unique_ptr<std::atomic<int32_t>[]> votes;
};

class OutOfBagMeans {
public:
  OutOfBagMeans() = default;
  OutOfBagMeans(size_t num_instances, size_t /*num_classes*/) : sums(num_instances, 0.0), counts(num_instances, 0) {}

  // Adds the predictions of tree j (counted from 0 in the call's trees),
  // the one tree in `tree` (leaf values in `value`), grown from the sample
  // `indices`, for every instance the sample missed. Safe to call from
  // several threads at once, each tree once.
  template <class Tree, class D, class Index>
  void add_tree(int64_t j, const Tree& tree, const D& data, const std::vector<Index>& indices) {
    std::vector<uint32_t> position = out_of_bag_detail::missed_by(indices, sums.size()), no_weight;
    std::vector<std::pair<uint32_t, double>> predictions;
    predictions.reserve(position.size());
    send_down_tree(tree, data, position, no_weight, [&](size_t node, size_t first, size_t last) {
      if (tree.left[node] >= 0) return;
      for (size_t p = first; p < last; ++p) predictions.emplace_back(position[p], tree.value[node]);
    });
    std::lock_guard<std::mutex> hold(lock);
    waiting.emplace(j, std::move(predictions));
    for (auto next = waiting.begin(); next != waiting.end() && next->first == added; next = waiting.erase(next)) {
      for (const auto& [i, value] : next->second) {
        sums[i] += value;
        ++counts[i];
      }
      ++added;
    }
  }

  // Per instance, its out-of-bag trees' number and the sum of their
  // predictions.
  void take(std::vector<int32_t>& tree_counts, std::vector<double>& prediction_sums) {
    tree_counts.swap(counts);
    prediction_sums.swap(sums);
  }

private:
  std::vector<double> sums;
  std::vector<int32_t> counts;
  std::mutex lock;
  int64_t added = 0;  // trees added so far: 0 .. added - 1
  std::map<int64_t, std::vector<std::pair<uint32_t, double>>> waiting;
};

template <class L>
using OutOfBagOf = typename std::conditional<std::is_integral<L>::value, OutOfBagVotes, OutOfBagMeans>::type;

}  // namespace Velmot

#endif
