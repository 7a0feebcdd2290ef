#ifndef VELMOT_LEARN_FOREST_CLASSIFIER_H
#define VELMOT_LEARN_FOREST_CLASSIFIER_H

// Majority vote of a classification forest.
//
// Tally: counts[label + 1] counts the votes for label, so slot 0 is label -1
// and the tally covers labels -1 .. num_classes. Majority: the first slot
// with the strictly largest count wins, so ties go to the smallest label;
// -2 means no tree voted inside the tally's range (a vote outside it is
// ignored rather than written past the tally).
//
// Descent: value < threshold goes left; equal or NaN goes right, matching
// the learner's partition.
//
// The forest is walked in its flat form (flat_forest.h): given as linked
// roots (use_forest), it is laid out once; given flat, it is used as is.
// Two paths give the same votes:
//   predict(data, i)   one instance, its trees shared among the threads;
//   the batch paths    (predict into a vector, compute_probabilities) walk
//                      two trees at a time over blocks of instances, the
//                      blocks shared among the threads, each block's values
//                      gathered once, instance by instance, as doubles.
//
// D, the data set, needs get_num_instances(), get_num_features(),
// get_num_classes(), get_labeling() and operator()(i, j).
//
// The forest is checked against the data's feature count before any
// parallel work; a descent that reaches a missing child (possible only in a
// hand-made tree with one child) stops the team and is reported after it
// (run_team, defs/parallel.h).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/labeling.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/tree.h"

namespace Velmot {

namespace forest_prediction {

inline Exception missing_child() { return Exception("tree descent reached a missing child"); }

// Instances [begin, end) of `data` as doubles (the type descent compares
// in), instance i's values at values[(i - begin) * stride + 1 ..], each row
// opened by the sentinel that leaves read. Copied in tiles of a few
// instances, so that both column-stored and instance-major sources are read
// along their cache lines.
template <class D>
void gather_block(const D& data, size_t begin, size_t end, size_t stride, double* values) {
  const size_t nf = data.get_num_features();
  constexpr size_t tile = 32;
  for (size_t first = begin; first < end; first += tile) {
    const size_t last = std::min(end, first + tile);
    for (size_t i = first; i < last; ++i) values[(i - begin) * stride] = flat_forest::sentinel;
    for (size_t f = 0; f < nf; ++f) {
      for (size_t i = first; i < last; ++i) values[(i - begin) * stride + 1 + f] = static_cast<double>(data(i, f));
    }
  }
}

// Counts the vote of `leaf` in `tally` (of `slots` counts); false for a
// stand-in, a missing child.
inline bool count_vote(const FlatNode* leaf, int* tally, size_t slots) {
  if (flat_forest::is_stand_in(*leaf)) return false;
  const uint64_t slot = static_cast<uint64_t>(static_cast<int64_t>(flat_forest::label_of(*leaf)) + 1);
  if (slot < slots) ++tally[slot];
  return true;
}

// Adds the votes of `trees` trees (roots[0 ..)) for `count` instances,
// gathered as gather_block does (values at the first instance's feature 0),
// to their tallies; false as soon as a walk reaches a missing child.
template <int group, int trees>
bool walk_block(const FlatNode* const* roots, const double* values, size_t stride, int64_t count, int* tallies,
                size_t slots) {
  const FlatNode* leaves[group * trees];
  int64_t i = 0;
  for (; i + group <= count; i += group) {
    flat_forest::find_leaves<group, trees>(roots, values + static_cast<size_t>(i) * stride, stride, leaves);
    int* tally = tallies + static_cast<size_t>(i) * slots;
    bool reached_all = true;
    for (int t = 0; t < trees; ++t) {
      for (int k = 0; k < group; ++k) {
        reached_all &= count_vote(leaves[t * group + k], tally + static_cast<size_t>(k) * slots, slots);
      }
    }
    if (!reached_all) return false;
  }
  for (; i < count; ++i) {
    const double* instance_values = values + static_cast<size_t>(i) * stride;
    auto value_of = [instance_values](int32_t f) { return instance_values[f]; };
    for (int t = 0; t < trees; ++t) {
      if (!count_vote(flat_forest::find_leaf(roots[t], value_of), tallies + static_cast<size_t>(i) * slots, slots)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace forest_prediction

template <class L>
class BaseForestClassifier {
public:
  // The tally size is formed in 64 bits: num_classes + 2 overflows an int
  // for the largest class counts (a negative size fails as an allocation).
  explicit BaseForestClassifier(int num_classes)
      : counts(static_cast<size_t>(static_cast<int64_t>(num_classes) + 2), 0) {}

  // The trees stay owned by the caller and must outlive their use here.
  void use_forest(const std::vector<Node<L>*>& trees) {
    forest = trees;
    flat.clear();
    shared = nullptr;
    flat_is_current = false;
  }

  // A forest already laid out for prediction (the module builds it straight
  // from the tree arrays); `forest` is left empty.
  void use_forest(FlatForest&& trees) {
    forest.clear();
    flat = std::move(trees);
    shared = nullptr;
    flat_is_current = true;
  }

  // A forest laid out for prediction and kept by the caller across
  // predictors (laying out a large forest costs as much as predicting tens
  // of thousands of instances); it must outlive its use here, unchanged.
  void use_forest(const FlatForest& trees) {
    forest.clear();
    flat.clear();
    shared = &trees;
    flat_is_current = true;
  }

  void clear() { std::fill(counts.begin(), counts.end(), 0); }

  // One vote, whatever the weight argument; labels outside the tally are
  // ignored.
  void vote(int label, int) {
    const int64_t slot = slot_of(label);
    if (slot >= 0) ++counts[static_cast<size_t>(slot)];
  }

  template <class D>
  int predict(const D& data, size_t instance_index);

  // Entry i is predict(data, i); afterwards the tally holds the last
  // instance's votes, as a one-by-one loop would leave it.
  template <class D>
  void predict(const D& data, std::vector<int>& predicted_labels);

  // Row i gets the vote fractions of instance i: one column per class for
  // DiscreteZeroOnward, columns for -1 and +1 for PlusOneMinusOne. The view
  // must have at least as many rows as instances and enough columns.
  template <class D, class T>
  void compute_probabilities(const D& data, Array2D<T>& probabilities);

  std::vector<int> votes_for_each_tree;
  std::vector<int> counts;
  std::vector<Node<L>*> forest;

private:
  int64_t slot_of(int64_t label) const {
    const int64_t slot = label + 1;
    return slot >= 0 && slot < static_cast<int64_t>(counts.size()) ? slot : -1;
  }

  static int majority(const int* tally, size_t slots) {
    int best_label = -2;
    int best_count = 0;
    for (size_t m = 0; m < slots; ++m) {
      if (tally[m] > best_count) {
        best_count = tally[m];
        best_label = static_cast<int>(m) - 1;
      }
    }
    return best_label;
  }

  // The forest, flat and checked against the data's features; throws what
  // an empty forest, a null tree or an unknown feature deserve.
  const FlatForest& ready_forest(size_t num_features) {
    const FlatForest& trees = shared != nullptr ? *shared : flat;
    if (forest.empty() && trees.empty()) throw Exception("forest is empty: cannot predict");
    if (!flat_is_current) {
      flat.clear();
      for (const Node<L>* root : forest) flat.append(flatten_tree(root));
      flat_is_current = true;
    }
    trees.check_features(num_features);
    return trees;
  }

  // Runs body(i, tally) for every instance, tally pointing at the instance's
  // counts.size() vote counts. Each worker takes blocks of instances with
  // its own tallies; body runs on the workers, for whole blocks only.
  template <class D, class Body>
  void for_each_instance(const D& data, Body&& body);

  FlatForest flat;
  const FlatForest* shared = nullptr;  // the caller's, if set: used instead of flat
  bool flat_is_current = false;
};

template <class L>
class ForestPredictor : public BaseForestClassifier<L> {
public:
  ForestPredictor() : BaseForestClassifier<L>(0) {}
  explicit ForestPredictor(int num_classes) : BaseForestClassifier<L>(num_classes) {}
};

template <class L>
template <class D>
int BaseForestClassifier<L>::predict(const D& data, size_t instance_index) {
  const FlatForest& trees = ready_forest(data.get_num_features());
  const int forest_size = static_cast<int>(trees.size());
  clear();
  votes_for_each_tree.resize(static_cast<size_t>(forest_size));
  auto value_of = [&](int32_t f) { return static_cast<double>(data(instance_index, static_cast<size_t>(f))); };
  run_team(std::min(default_team_size(), forest_size), [&](const Worker& w) {
    const Block block = block_of(forest_size, w);
    for (int64_t k = block.first; k < block.last && !w.stopped(); ++k) {
      const FlatNode* leaf = flat_forest::find_leaf(trees.tree(static_cast<size_t>(k)), value_of);
      if (flat_forest::is_stand_in(*leaf)) throw forest_prediction::missing_child();
      votes_for_each_tree[static_cast<size_t>(k)] = flat_forest::label_of(*leaf);
    }
  });
  for (int k = 0; k < forest_size; ++k) vote(votes_for_each_tree[k], 1);
  return majority(counts.data(), counts.size());
}

template <class L>
template <class D, class Body>
void BaseForestClassifier<L>::for_each_instance(const D& data, Body&& body) {
  const int64_t num_instances = static_cast<int64_t>(data.get_num_instances());
  if (num_instances == 0) return;
  const FlatForest& trees = ready_forest(data.get_num_features());

  // All but the last instance in blocks; the last one through predict() so
  // that votes_for_each_tree and counts end as the one-by-one loop leaves
  // them. Each pair of trees walks a whole block before the next pair
  // starts, so a tree is loaded into cache once per block; but the block's
  // values pass through the cache once per pair too. Measured on 50,000
  // instances x 40 features and 100 trees of 12,500 nodes, CPU on one
  // thread (a loaded machine, so the larger blocks vary): blocks of 3,200
  // instances 218 ms, 6,400 178 ms, 12,787 155-165 ms, 25,000 172-197 ms,
  // 50,000 158-200 ms. So blocks hold at most 2^19 values (4 MiB), as many
  // tallies at most, and are no larger than one thread's share, which also
  // leaves several blocks per thread to balance the load.
  const size_t slots = counts.size();
  const size_t stride = data.get_num_features() + 1;
  const int team = default_team_size();
  const int64_t batched = num_instances - 1;
  const size_t cap = size_t(1) << 19;
  const int64_t block_size = std::max<int64_t>(
      64, std::min<int64_t>((batched + team - 1) / team,
                            static_cast<int64_t>(std::min(cap / stride, cap / std::max<size_t>(slots, 1)))));
  const int64_t num_blocks = (batched + block_size - 1) / block_size;
  const size_t num_trees = trees.size();
  // Every worker's buffers are allocated before the team, once.
  const size_t tally_cells = static_cast<size_t>(block_size) * slots;
  const size_t value_cells = static_cast<size_t>(block_size) * stride;
  std::vector<int> all_tallies(static_cast<size_t>(team) * tally_cells);
  std::vector<double> all_values(static_cast<size_t>(team) * value_cells);
  for_each_index(num_blocks, team, [&](int64_t b, const Worker& w) {
    int* const tallies = all_tallies.data() + static_cast<size_t>(w.number) * tally_cells;
    double* const values = all_values.data() + static_cast<size_t>(w.number) * value_cells;
    const int64_t begin = b * block_size;
    const int64_t end = std::min(begin + block_size, batched);
    forest_prediction::gather_block(data, static_cast<size_t>(begin), static_cast<size_t>(end), stride, values);
    std::fill(tallies, tallies + tally_cells, 0);
    for (size_t t = 0; t < num_trees && !w.stopped(); t += 2) {
      bool reached_leaves;
      if (t + 1 < num_trees) {
        const FlatNode* roots[2] = {trees.tree(t), trees.tree(t + 1)};
        reached_leaves = forest_prediction::walk_block<8, 2>(roots, values + 1, stride, end - begin, tallies, slots);
      } else {
        const FlatNode* roots[1] = {trees.tree(t)};
        reached_leaves = forest_prediction::walk_block<8, 1>(roots, values + 1, stride, end - begin, tallies, slots);
      }
      if (!reached_leaves) throw forest_prediction::missing_child();
    }
    if (w.stopped()) return;
    for (int64_t i = begin; i < end; ++i) {
      body(static_cast<size_t>(i), tallies + static_cast<size_t>(i - begin) * slots);
    }
  });
  const size_t last = static_cast<size_t>(num_instances - 1);
  predict(data, last);
  body(last, counts.data());
}

template <class L>
template <class D>
void BaseForestClassifier<L>::predict(const D& data, std::vector<int>& predicted_labels) {
  predicted_labels.resize(data.get_num_instances());
  const size_t slots = counts.size();
  for_each_instance(data, [&](size_t i, const int* tally) { predicted_labels[i] = majority(tally, slots); });
}

template <class L>
template <class D, class T>
void BaseForestClassifier<L>::compute_probabilities(const D& data, Array2D<T>& probabilities) {
  const size_t ni = data.get_num_instances();
  const LabelingType labeling = data.get_labeling();
  if (labeling == Regression) throw Exception("cannot compute probabilities for regression");
  const size_t nc = labeling == PlusOneMinusOne ? 2 : data.get_num_classes();
  if (probabilities.num_rows() < 0 || static_cast<size_t>(probabilities.num_rows()) < ni ||
      probabilities.num_cols() < 0 || static_cast<size_t>(probabilities.num_cols()) < nc) {
    throw Exception("probability matrix is " + std::to_string(probabilities.num_rows()) + " x " +
                    std::to_string(probabilities.num_cols()) + ", too small for " + std::to_string(ni) +
                    " instances x " + std::to_string(nc) + " classes");
  }
  const double num_trees = static_cast<double>(shared != nullptr ? shared->size()
                                               : flat_is_current ? flat.size()
                                                                 : forest.size());
  // Classes past the tally (a class count larger than the one the predictor
  // was built with) received no votes.
  const size_t slots = counts.size();
  auto votes = [slots](const int* tally, size_t slot) { return slot < slots ? tally[slot] : 0; };
  if (labeling == PlusOneMinusOne) {
    for_each_instance(data, [&](size_t i, const int* tally) {
      const int row = static_cast<int>(i);
      probabilities(row, 0) = static_cast<T>(votes(tally, 0) / num_trees);
      probabilities(row, 1) = static_cast<T>(votes(tally, 2) / num_trees);
    });
    return;
  }
  for_each_instance(data, [&](size_t i, const int* tally) {
    const int row = static_cast<int>(i);
    for (size_t m = 0; m < nc; ++m)
      probabilities(row, static_cast<int>(m)) = static_cast<T>(votes(tally, m + 1) / num_trees);
  });
}

}  // namespace Velmot

#endif
