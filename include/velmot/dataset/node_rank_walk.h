#ifndef VELMOT_DATASET_NODE_RANK_WALK_H
#define VELMOT_DATASET_NODE_RANK_WALK_H

// NodeRankWalk: a large node's ranks of a feature, in ascending order with
// the node position each came from, by one pass over the feature's rank
// order (dataset/rank_order.h) instead of a gather and a sort.
//
// Steps: enter() marks each of the node's instances with its position in
// a table over all instances; walk() visits the feature's instances in
// rank order and keeps the marked ones, writing every element and
// advancing only past those (no branch to mispredict); leave() clears the
// marks. The pass reads every instance of the data set, so it pays only
// where the node holds a large share of them (SortedFeature decides).
//
// The instances must be distinct (a sample with its repeats merged): each
// one is visited once. Their ranks are then distinct too, so the order is
// the one any sort of (rank, position) gives.

#include <cstdint>
#include <vector>

namespace Velmot {

class NodeRankWalk {
public:
  // Marks instance[i] with position i, for the n distinct instances of a
  // node, all below num_instances.
  void enter(const uint32_t* instance, size_t n, size_t num_instances) {
    if (position_of.size() != num_instances) position_of.assign(num_instances, absent);
    for (size_t i = 0; i < n; ++i) position_of[instance[i]] = static_cast<uint32_t>(i);
    marked = instance;
    count = n;
  }
  void leave() {
    for (size_t i = 0; i < count; ++i) position_of[marked[i]] = absent;
    marked = nullptr;
    count = 0;
  }
  bool active() const { return marked != nullptr; }
  size_t size() const { return count; }

  // Writes the node's ranks in ascending order to rank[0, n) and their
  // positions to position[0, n); order is the feature's instances by rank
  // (num_instances of them). Both arrays hold n + 1 entries: the element
  // after the last kept one is written too.
  void walk(const uint32_t* order, uint32_t* rank, uint32_t* position) const {
    const uint32_t* const node_position = position_of.data();
    const size_t num_instances = position_of.size();
    size_t out = 0;
    for (size_t r = 0; r < num_instances; ++r) {
      const uint32_t p = node_position[order[r]];
      rank[out] = static_cast<uint32_t>(r);
      position[out] = p;
      // Positions lie below 2^31 (a tree's sample fits an int), the mark
      // for an absent instance above.
      out += ~p >> 31;
    }
  }

private:
  static constexpr uint32_t absent = ~uint32_t(0);

  std::vector<uint32_t> position_of;
  const uint32_t* marked = nullptr;
  size_t count = 0;
};

}  // namespace Velmot

#endif
