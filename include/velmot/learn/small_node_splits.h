#ifndef VELMOT_LEARN_SMALL_NODE_SPLITS_H
#define VELMOT_LEARN_SMALL_NODE_SPLITS_H

// SmallNodeSplits: the sweep's results (learn/sweep.h) for the features of
// a node of at most four positions whose ranks are distinct, kept by the
// order the node's positions sort in.
//
// Where a feature's ranks at the node's positions are distinct, its sorted
// elements are the positions in ascending rank: the sweep reads their
// labels and weights in that order and compares keys only for equality, so
// its score, impurity and boundary depend on the order alone. Four
// positions have 24 orders, and a node tries about 13 features: most of
// them meet an order already swept, and skip the sort and the sweep.
// Nodes this small are most of the searched nodes (more than half of them
// hold two to four positions in a bootstrap forest grown to leaves of one).
//
// Glossary:
//   order  the node's positions by ascending rank of one feature: order[j]
//          is the position of the j-th smallest rank;
//   code   the order as one number, 2 bits per place (256 codes).
//
// Steps: begin(n) for each node; order_of(rank, n, order) sorts a
// feature's n ranks (false if two are equal: the grower then sorts as
// usual); split(order, sweep) returns the result for that order, calling
// sweep(order) only the first time the node meets it.

#include <cstdint>

#include "velmot/learn/sweep.h"

namespace Velmot {

class SmallNodeSplits {
public:
  static constexpr size_t max_positions = 4;

  void begin(size_t positions) {
    n = positions;
    // A stamp per node marks the results already made; at its wrap, every
    // result is forgotten.
    if (++stamp == 0) {
      for (Entry& entry : entries) entry.stamp = 0;
      stamp = 1;
    }
  }

  // The n positions by ascending rank; false if two ranks are equal.
  static bool order_of(const uint32_t* rank, size_t n, uint8_t* order) {
    unsigned equal = 0;
    for (size_t i = 0; i < n; ++i) {
      size_t place = 0;
      for (size_t j = 0; j < n; ++j) {
        place += rank[j] < rank[i];
        equal += (rank[j] == rank[i]) & (j != i);
      }
      order[place] = static_cast<uint8_t>(i);
    }
    return equal == 0;
  }

  // sweep(order) returns the FeatureSplit<uint32_t> of the elements in that
  // order, keyed by their places 0 to n - 1; the split returned keeps those
  // places as its keys.
  template <class Sweep>
  const FeatureSplit<uint32_t>& split(const uint8_t* order, Sweep&& sweep) {
    unsigned code = 0;
    for (size_t j = 0; j < n; ++j) code |= static_cast<unsigned>(order[j]) << (2 * j);
    Entry& entry = entries[code];
    if (entry.stamp != stamp) {
      entry.split = sweep(order);
      entry.stamp = stamp;
    }
    return entry.split;
  }

private:
  struct Entry {
    uint32_t stamp = 0;
    FeatureSplit<uint32_t> split;
  };

  size_t n = 0;
  uint32_t stamp = 0;
  Entry entries[1 << (2 * max_positions)];
};

}  // namespace Velmot

#endif
