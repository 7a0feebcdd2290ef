#ifndef VELMOT_DEFS_TREE_SEEDS_H
#define VELMOT_DEFS_TREE_SEEDS_H

// The generator of one tree of a seeded forest, a function of (seed, tree
// index) alone: whichever thread, process or machine learns tree k, it
// draws the same numbers, so a forest does not depend on how its trees were
// scheduled or split into blocks.
//
// The four state words are successive outputs of splitmix64 started from a
// mix of seed and index; like the pool's seeded states, every word is
// non-zero and non-negative.

#include <cstdint>

#include "velmot/defs/random.h"

namespace Velmot {

namespace tree_seeds_detail {

inline uint64_t splitmix64(uint64_t& state) {
  state += 0x9e3779b97f4a7c15ull;
  uint64_t z = state;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

}  // namespace tree_seeds_detail

inline XorShiftRNG tree_generator(uint64_t seed, uint64_t tree_index) {
  // The index goes through one splitmix64 step of its own first, so that
  // (seed, k + 1) does not start where (seed, k)'s sequence continues.
  uint64_t index_state = tree_index;
  uint64_t state = seed ^ tree_seeds_detail::splitmix64(index_state);
  int64_t words[4];
  for (int64_t& word : words) {
    do {
      word = static_cast<int64_t>(tree_seeds_detail::splitmix64(state) >> 1);
    } while (word == 0);
  }
  return XorShiftRNG(XorShiftState{words[0], words[1], words[2], words[3]});
}

}  // namespace Velmot

#endif
