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
// Descent (Node::find_leaf): value < threshold goes left; equal or NaN goes
// right, matching the learner's partition.
//
// D, the data set, needs get_num_instances(), get_num_features(),
// get_num_classes(), get_labeling() and operator()(i, j).
//
// Nothing is thrown inside a parallel region: the forest is checked against
// the data's feature count before any region, and a descent that reaches a
// missing child (possible only in a hand-made tree with one child) is
// recorded and reported after the region.

#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/labeling.h"
#include "velmot/learn/tree.h"

namespace Velmot {

template <class L>
class BaseForestClassifier {
public:
  explicit BaseForestClassifier(int num_classes) : counts(static_cast<size_t>(num_classes + 2), 0) {}

  // The trees stay owned by the caller and must outlive their use here.
  void use_forest(const std::vector<Node<L>*>& trees) {
    forest = trees;
    checked_num_features = unchecked;
  }

  void clear() { std::fill(counts.begin(), counts.end(), 0); }

  // One vote, whatever the weight argument; labels outside the tally are
  // ignored.
  void vote(int label, int) {
    const long long slot = static_cast<long long>(label) + 1;
    if (slot >= 0 && slot < static_cast<long long>(counts.size())) ++counts[static_cast<size_t>(slot)];
  }

  template <class D>
  int predict(const D& data, size_t instance_index);

  // Entry i is predict(data, i). The instances are shared among the threads
  // (one region for all of them), which gives the same labels as one
  // region per instance at a fraction of the cost; afterwards the tally
  // holds the last instance's votes, as the one-by-one loop would leave it.
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
  static constexpr size_t unchecked = static_cast<size_t>(-1);

  // Refuses a forest whose split nodes test a feature the data lacks, once
  // per forest and feature count.
  void check_features(size_t num_features);

  void require_trees() const {
    if (forest.empty()) throw Exception("forest is empty: cannot predict");
  }

  static int majority(const std::vector<int>& tally) {
    int best_label = -2;
    int best_count = 0;
    for (size_t m = 0; m < tally.size(); ++m) {
      if (tally[m] > best_count) {
        best_count = tally[m];
        best_label = static_cast<int>(m) - 1;
      }
    }
    return best_label;
  }

  // Tallies the votes of every tree for one instance into `tally` (zeroed
  // first). Returns false if a descent reached a missing child.
  template <class D>
  bool tally_instance(const D& data, size_t instance_index, std::vector<int>& tally) const;

  // Runs body(i, tally) for every instance on the current thread team, each
  // thread with its own tally; reports a missing child after the region.
  template <class D, class Body>
  void for_each_instance(const D& data, Body&& body);

  size_t checked_num_features = unchecked;
};

template <class L>
class ForestPredictor : public BaseForestClassifier<L> {
public:
  ForestPredictor() : BaseForestClassifier<L>(0) {}
  explicit ForestPredictor(int num_classes) : BaseForestClassifier<L>(num_classes) {}
};

namespace forest_prediction {

inline Exception missing_child() { return Exception("tree descent reached a missing child"); }

}  // namespace forest_prediction

template <class L>
void BaseForestClassifier<L>::check_features(size_t num_features) {
  if (checked_num_features == num_features) return;
  std::vector<const Node<L>*> pending;
  for (const Node<L>* root : forest) {
    if (root == nullptr) throw Exception("forest holds a null tree");
    pending.push_back(root);
    while (!pending.empty()) {
      const Node<L>* node = pending.back();
      pending.pop_back();
      if (node->is_leaf()) continue;
      const int f = node->get_feature_index();
      if (f < 0 || static_cast<size_t>(f) >= num_features) {
        throw Exception("tree node tests feature " + std::to_string(f) + " but the data has " +
                        std::to_string(num_features) + " features");
      }
      if (node->get_left() != nullptr) pending.push_back(node->get_left());
      if (node->get_right() != nullptr) pending.push_back(node->get_right());
    }
  }
  checked_num_features = num_features;
}

template <class L>
template <class D>
int BaseForestClassifier<L>::predict(const D& data, size_t instance_index) {
  const int forest_size = static_cast<int>(forest.size());
  require_trees();
  check_features(data.get_num_features());
  clear();
  votes_for_each_tree.resize(static_cast<size_t>(forest_size));
  int missing = 0;
#pragma omp parallel for schedule(static) reduction(| : missing)
  for (int k = 0; k < forest_size; ++k) {
    const Node<L>* leaf = forest[k]->find_leaf(data, instance_index);
    if (leaf == nullptr) {
      missing = 1;
    } else {
      votes_for_each_tree[k] = static_cast<int>(leaf->get_label());
    }
  }
  if (missing) throw forest_prediction::missing_child();
  for (int k = 0; k < forest_size; ++k) vote(votes_for_each_tree[k], 1);
  return majority(counts);
}

template <class L>
template <class D>
bool BaseForestClassifier<L>::tally_instance(const D& data, size_t instance_index, std::vector<int>& tally) const {
  std::fill(tally.begin(), tally.end(), 0);
  const long long slots = static_cast<long long>(tally.size());
  for (const Node<L>* root : forest) {
    const Node<L>* leaf = root->find_leaf(data, instance_index);
    if (leaf == nullptr) return false;
    const long long slot = static_cast<long long>(leaf->get_label()) + 1;
    if (slot >= 0 && slot < slots) ++tally[static_cast<size_t>(slot)];
  }
  return true;
}

template <class L>
template <class D, class Body>
void BaseForestClassifier<L>::for_each_instance(const D& data, Body&& body) {
  const long long num_instances = static_cast<long long>(data.get_num_instances());
  if (num_instances == 0) return;
  require_trees();
  check_features(data.get_num_features());
  // All but the last instance in one region; the last one through predict()
  // so that votes_for_each_tree and counts end as the one-by-one loop leaves
  // them.
  int missing = 0;
#pragma omp parallel reduction(| : missing)
  {
    std::vector<int> tally(counts.size(), 0);
#pragma omp for schedule(static)
    for (long long i = 0; i < num_instances - 1; ++i) {
      if (missing) continue;
      if (!tally_instance(data, static_cast<size_t>(i), tally)) {
        missing = 1;
        continue;
      }
      body(static_cast<size_t>(i), tally);
    }
  }
  if (missing) throw forest_prediction::missing_child();
  const size_t last = static_cast<size_t>(num_instances - 1);
  predict(data, last);
  body(last, counts);
}

template <class L>
template <class D>
void BaseForestClassifier<L>::predict(const D& data, std::vector<int>& predicted_labels) {
  predicted_labels.resize(data.get_num_instances());
  for_each_instance(data,
                    [&](size_t i, const std::vector<int>& tally) { predicted_labels[i] = majority(tally); });
}

template <class L>
template <class D, class T>
void BaseForestClassifier<L>::compute_probabilities(const D& data, Array2D<T>& probabilities) {
  const double num_trees = static_cast<double>(forest.size());
  const size_t ni = data.get_num_instances();
  const LabelingType labeling = data.get_labeling();
  if (labeling == Regression) throw Exception("cannot compute probabilities for regression");
  const size_t nc = labeling == PlusOneMinusOne ? 2 : data.get_num_classes();
  if (static_cast<size_t>(probabilities.num_rows()) < ni || static_cast<size_t>(probabilities.num_cols()) < nc) {
    throw Exception("probability matrix is " + std::to_string(probabilities.num_rows()) + " x " +
                    std::to_string(probabilities.num_cols()) + ", too small for " + std::to_string(ni) +
                    " instances x " + std::to_string(nc) + " classes");
  }
  if (labeling == PlusOneMinusOne) {
    for_each_instance(data, [&](size_t i, const std::vector<int>& tally) {
      const int row = static_cast<int>(i);
      probabilities(row, 0) = static_cast<T>((tally.empty() ? 0 : tally[0]) / num_trees);
      probabilities(row, 1) = static_cast<T>((tally.size() > 2 ? tally[2] : 0) / num_trees);
    });
    return;
  }
  for_each_instance(data, [&](size_t i, const std::vector<int>& tally) {
    const int row = static_cast<int>(i);
    for (size_t m = 0; m < nc; ++m) {
      // Classes past the tally (a class count larger than the one the
      // predictor was built with) received no votes.
      const int votes = m + 1 < tally.size() ? tally[m + 1] : 0;
      probabilities(row, static_cast<int>(m)) = static_cast<T>(votes / num_trees);
    }
  });
}

}  // namespace Velmot

#endif
