#ifndef VELMOT_LEARN_FOREST_ARRAYS_VOTE_H
#define VELMOT_LEARN_FOREST_ARRAYS_VOTE_H

// Votes of a forest held as ForestArrays (learn/forest_arrays.h), read in
// place through ForestArraysView, for the instances of a strided matrix:
// votes(i, c) is the number of trees whose leaf for instance i holds class
// c. Majority and vote fractions follow from the tally exactly as the
// forest predictor forms them (ties to the smallest class; fractions are
// votes / trees).
//
// The descent is the tree model's: a value below the threshold goes left,
// an equal value or NaN goes right. check_forest_arrays refuses, before
// any descent, every forest on which one could fail or loop: offsets out
// of order, a child outside its tree or not after its parent (so every
// walk ends), a split with one child or a feature outside the matrix, and
// a leaf class outside [0, num_classes).
//
// Instances are divided among the threads (static blocks); each thread
// writes only its instances' rows, so the tally needs no lock.

#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "velmot/defs/exception.h"

namespace Velmot {

struct ForestArraysView {
  const int64_t* offsets;  // num_trees + 1 entries
  size_t num_trees;
  const int32_t* left;
  const int32_t* right;
  const int32_t* feature;
  const double* threshold;
  const int32_t* value;
  size_t num_nodes;
};

// Value of feature j of instance i at data + i * stride_i + j * stride_j
// bytes (strides may be negative).
template <class F>
struct StridedMatrix {
  const unsigned char* data;
  int64_t stride_i;
  int64_t stride_j;

  double at(size_t i, size_t j) const {
    F value;
    std::memcpy(&value, data + static_cast<int64_t>(i) * stride_i + static_cast<int64_t>(j) * stride_j, sizeof(F));
    return static_cast<double>(value);
  }
};

inline void check_forest_arrays(const ForestArraysView& forest, size_t num_features, size_t num_classes) {
  if (forest.num_trees == 0) throw Exception("forest is empty: cannot predict");
  if (forest.offsets[0] != 0 || forest.offsets[forest.num_trees] != static_cast<int64_t>(forest.num_nodes)) {
    throw Exception("tree offsets must start at 0 and end at the number of nodes");
  }
  for (size_t k = 0; k < forest.num_trees; ++k) {
    const int64_t begin = forest.offsets[k], end = forest.offsets[k + 1];
    if (!(begin < end)) throw Exception("tree " + std::to_string(k) + " has no nodes or its offsets go backwards");
    const int64_t size = end - begin;
    for (int64_t i = 0; i < size; ++i) {
      const size_t node = static_cast<size_t>(begin + i);
      const int32_t left = forest.left[node], right = forest.right[node];
      const std::string where = "node " + std::to_string(i) + " of tree " + std::to_string(k);
      if (left < 0 && right < 0) {
        if (forest.value[node] < 0 || static_cast<size_t>(forest.value[node]) >= num_classes) {
          throw Exception(where + " is a leaf whose class lies outside [0, n_classes)");
        }
        continue;
      }
      if (left <= i || right <= i || left >= size || right >= size) {
        throw Exception(where + " must have two children after it in its tree");
      }
      if (forest.feature[node] < 0 || static_cast<size_t>(forest.feature[node]) >= num_features) {
        throw Exception(where + " splits on a feature the samples do not have");
      }
    }
  }
}

// votes: num_instances x num_classes, row-major, overwritten. The forest
// must have passed check_forest_arrays for these feature and class counts.
template <class F>
void count_votes(const ForestArraysView& forest, const StridedMatrix<F>& matrix, size_t num_instances,
                 size_t num_classes, int32_t* votes, int num_threads) {
  // A block of instances walks one tree after another, so that each tree's
  // upper levels stay in the cache for the whole block.
  constexpr int64_t block = 64;
  const int64_t num_blocks = (static_cast<int64_t>(num_instances) + block - 1) / block;
#pragma omp parallel for schedule(static) num_threads(num_threads)
  for (int64_t b = 0; b < num_blocks; ++b) {
    const size_t first = static_cast<size_t>(b * block);
    const size_t last = std::min(num_instances, first + static_cast<size_t>(block));
    for (size_t cell = first * num_classes; cell < last * num_classes; ++cell) votes[cell] = 0;
    for (size_t k = 0; k < forest.num_trees; ++k) {
      const size_t base = static_cast<size_t>(forest.offsets[k]);
      for (size_t i = first; i < last; ++i) {
        size_t node = base;
        while (forest.left[node] >= 0) {
          const double value = matrix.at(i, static_cast<size_t>(forest.feature[node]));
          node = base + static_cast<size_t>(forest.threshold[node] > value ? forest.left[node] : forest.right[node]);
        }
        ++votes[i * num_classes + static_cast<size_t>(forest.value[node])];
      }
    }
  }
}

}  // namespace Velmot

#endif
