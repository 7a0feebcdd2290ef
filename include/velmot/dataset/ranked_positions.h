#ifndef VELMOT_DATASET_RANKED_POSITIONS_H
#define VELMOT_DATASET_RANKED_POSITIONS_H

// RankedPositions: a node's ranks of one feature sorted together with the
// node position each came from, for labels that do not pack into a sort key
// (real labels): the sweep reads a label, and its position's weight,
// through the position, so labels never move through the sort and each
// distinct instance is sorted once, however many copies of it were drawn.
//
// Glossary:
//   position  an element's index within the node's slice of the sample (0
//             to n - 1), where its label and weight lie;
//   packed    rank << shift | position in one 32-bit key, when the
//             feature's ranks and the node's positions fit together (every
//             node but the few largest); sorted by PackedRankSort with the
//             position bits left out of the order;
//   split     ranks and positions in two arrays, sorted by RankSort.
//
// Order: ascending rank, equal ranks by ascending label (equal labels in
// any order: their copies add the same terms), the order the sweep's sums
// are taken in whichever form a node used. Both sorts leave equal ranks in
// position order; runs of equal ranks, rare on continuous features, are
// then copied out and put in label order.
//
// Steps: prepare(n, num_ranks) sizes the keys and says how to fill them
// (key[i] = rank << shift() | (i & position_mask())); sort(n, kmin, kmax,
// label) sorts them, false for a constant feature; visit(read) hands
// read(key_at, position_at) the sorted elements, key_at(i) a rank lowered
// by rank_offset(). Ranks that come sorted and distinct (a node's walk of
// the feature's rank order, dataset/node_rank_walk.h) skip the sort: they
// are written to walked_ranks(n) and walked_positions(n) and taken by
// take_walked(n).

#include <algorithm>
#include <cstdint>
#include <vector>

#include "velmot/defs/sort.h"
#include "velmot/defs/sorting_network.h"

namespace Velmot {

class RankedPositions {
public:
  // Room for n >= 2 positions of a feature whose ranks lie below num_ranks.
  uint32_t* prepare(size_t n, size_t num_ranks) {
    const int rank_bits = sort_detail::bit_width(num_ranks == 0 ? 0 : num_ranks - 1);
    const int position_bits = sort_detail::bit_width(n - 1);
    packed = rank_bits + position_bits <= 32;
    if (packed) {
      key_shift = position_bits;
      mask = (uint32_t(1) << position_bits) - 1;
      packed_sort.prepare(n);
      return packed_sort.keys();
    }
    key_shift = 0;
    mask = 0;
    rank_sort.prepare(n);
    return rank_sort.key.data();
  }
  int shift() const { return key_shift; }
  uint32_t position_mask() const { return mask; }

  // Sorts the n keys filled in (the smallest kmin, the largest kmax); false
  // if every key has one rank. label[i] is position i's label; may_tie is
  // false when no two instances share a value of the feature.
  template <class L>
  bool sort(size_t n, uint32_t kmin, uint32_t kmax, const L* label, bool may_tie) {
    count = n;
    if ((kmin >> key_shift) == (kmax >> key_shift)) return false;
    if (packed && n <= small_size) {
      sorted_key = sort_small(packed_sort.keys(), n);
      offset = 0;
    } else if (packed) {
      packed_sort.sort(n, kmin, kmax, key_shift, key_shift, bucket_sort_max);
      sorted_key = packed_sort.sorted();
      offset = 0;
    } else {
      uint32_t* position = rank_sort.label.data();
      for (size_t i = 0; i < n; ++i) position[i] = static_cast<uint32_t>(i);
      rank_sort.sort(n, kmin, kmax);
      sorted_key = rank_sort.sorted_key();
      sorted_position = rank_sort.sorted_label();
      offset = rank_sort.key_offset();
    }
    distinct = !(may_tie && has_equal_ranks());
    if (!distinct) order_equal_ranks_by_label(label);
    return true;
  }
  // Arrays of n + 1 entries for n ascending, distinct ranks and their
  // positions; walked_ranks(n) first.
  uint32_t* walked_ranks(size_t n) {
    walked_rank.resize(n + 1);
    walked_position.resize(n + 1);
    return walked_rank.data();
  }
  uint32_t* walked_positions() { return walked_position.data(); }
  // Takes the n walked elements as sorted; false if every key has one rank.
  bool take_walked(size_t n) {
    count = n;
    if (walked_rank[0] == walked_rank[n - 1]) return false;
    packed = false;
    offset = 0;
    distinct = true;
    sorted_key = walked_rank.data();
    sorted_position = walked_position.data();
    return true;
  }

  // Whether the last sort's ranks were all distinct.
  bool distinct_ranks() const { return distinct; }

  uint32_t rank_offset() const { return offset; }

  // Returns read(key_at, position_at) over the sorted elements.
  template <class Read>
  decltype(auto) visit(Read&& read) const {
    if (packed) {
      const uint32_t* key = sorted_key;
      const int s = key_shift;
      const uint32_t m = mask;
      return read([key, s](size_t i) { return key[i] >> s; }, [key, m](size_t i) { return key[i] & m; });
    }
    const uint32_t* rank = sorted_key;
    const uint32_t* position = sorted_position;
    return read([rank](size_t i) { return rank[i]; }, [position](size_t i) { return position[i]; });
  }

private:
  // Up to this many packed keys go through a sorting network: no branch,
  // where a comparison sort's go either way at random (most nodes are this
  // small). Packed keys are distinct (their positions differ), so any
  // correct sort leaves them in the one order.
  static constexpr size_t small_size = sorting_network_max;
  // Above this many keys the radix sort runs instead of the bucket sort:
  // its passes leave the position bits out, so ranks below 2^22 take two.
  // One tree of W5's regression forest on one thread: 1.3% fewer
  // instructions than at PackedRankSort's own limit of 4,096, 2.4% fewer
  // than at 128.
  static constexpr size_t bucket_sort_max = 512;

  const uint32_t* sort_small(const uint32_t* key, size_t n) {
    sort_by_network(small_sorted, key, n);
    return small_sorted;
  }

  bool has_equal_ranks() const {
    return visit([this](auto key_at, auto) {
      bool equal = false;
      for (size_t i = 1; i < count; ++i) equal |= key_at(i) == key_at(i - 1);
      return equal;
    });
  }

  // Copies the elements out as ranks and positions and sorts each run of
  // equal ranks by label (insertion sort: runs are short).
  template <class L>
  void order_equal_ranks_by_label(const L* label) {
    tied_rank.resize(count);
    tied_position.resize(count);
    visit([this](auto key_at, auto position_at) {
      for (size_t i = 0; i < count; ++i) {
        tied_rank[i] = key_at(i);
        tied_position[i] = position_at(i);
      }
      return 0;
    });
    uint32_t* position = tied_position.data();
    size_t run_start = 0;
    for (size_t i = 1; i <= count; ++i) {
      if (i < count && tied_rank[i] == tied_rank[run_start]) continue;
      for (size_t a = run_start + 1; a < i; ++a) {
        const uint32_t moving = position[a];
        size_t b = a;
        for (; b != run_start && label[moving] < label[position[b - 1]]; --b) position[b] = position[b - 1];
        position[b] = moving;
      }
      run_start = i;
    }
    packed = false;
    sorted_key = tied_rank.data();
    sorted_position = tied_position.data();
  }

  bool packed = true;
  bool distinct = false;
  int key_shift = 0;
  uint32_t mask = 0;
  size_t count = 0;
  uint32_t offset = 0;
  const uint32_t* sorted_key = nullptr;
  const uint32_t* sorted_position = nullptr;
  PackedRankSort packed_sort;
  RankSort<uint32_t, uint32_t> rank_sort;
  std::vector<uint32_t> tied_rank, tied_position;
  std::vector<uint32_t> walked_rank, walked_position;
  uint32_t small_sorted[small_size];
};

}  // namespace Velmot

#endif
