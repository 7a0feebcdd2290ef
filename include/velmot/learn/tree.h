#ifndef VELMOT_LEARN_TREE_H
#define VELMOT_LEARN_TREE_H

// The tree model: linked Nodes, and VectorizedTree, which flattens a tree
// into five parallel sequences (breadth-first numbering, column 0 the root)
// and rebuilds linked nodes from five strided views of the same.
//
// Glossary: a leaf has no children (feature index -1 when learnt); an
// internal node has label -2; an absent child is -1 in the flat form.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/exception.h"
#include "velmot/learn/tree_encoding.h"

namespace Velmot {

template <class L>
class Node {
public:
  Node() = default;
  Node(Node* left, Node* right) : left(left), right(right) {}
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Owns its subtrees. Freed without recursion, so that a degenerate deep
  // tree cannot exhaust the stack.
  ~Node() {
    std::vector<Node*> pending;
    detach_children_into(pending);
    while (!pending.empty()) {
      Node* node = pending.back();
      pending.pop_back();
      node->detach_children_into(pending);
      delete node;
    }
  }

  const Node* get_left() const { return left; }
  Node* get_left() { return left; }
  const Node* get_right() const { return right; }
  Node* get_right() { return right; }
  void set_left(Node* node) { left = node; }
  void set_right(Node* node) { right = node; }
  bool is_leaf() const { return left == nullptr && right == nullptr; }

  double get_threshold() const { return threshold; }
  void set_threshold(double t) { threshold = t; }
  int get_feature_index() const { return feature_index; }
  void set_feature_index(int f) { feature_index = f; }
  L get_label() const { return label; }
  void set_label(L l) { label = l; }

  // Descends to a leaf: a value below the threshold goes left; a value equal
  // to it, or NaN, goes right. Returns nullptr if the branch taken is absent
  // (only possible in a hand-made tree with one child).
  template <class D>
  const Node* find_leaf(const D& data, size_t instance_index) const {
    const Node* node = this;
    while (node->left != nullptr || node->right != nullptr) {
      const double value = static_cast<double>(data(instance_index, static_cast<size_t>(node->feature_index)));
      node = node->threshold > value ? node->left : node->right;
      if (node == nullptr) return nullptr;
    }
    return node;
  }

  template <class D>
  L predict(const D& data, size_t instance_index) const {
    const Node* leaf = find_leaf(data, instance_index);
    if (leaf == nullptr) throw Exception("tree descent reached a missing child");
    return leaf->label;
  }

private:
  void detach_children_into(std::vector<Node*>& pending) {
    if (left != nullptr) pending.push_back(left);
    if (right != nullptr) pending.push_back(right);
    left = nullptr;
    right = nullptr;
  }

  Node* left = nullptr;
  Node* right = nullptr;
  double threshold = std::numeric_limits<double>::quiet_NaN();
  L label = static_cast<L>(-2);
  int feature_index = -1;
};

template <class L>
class VectorizedTree {
public:
  VectorizedTree() = default;

  // Breadth-first: column 0 is the root, and each visited node's left, then
  // right child take the next free columns. Fill a fresh object per tree.
  void root_to_vector(Node<L>* root_node);

  size_t get_num_nodes() const { return nodes.size(); }
  int num_nodes() const { return static_cast<int>(nodes.size()); }
  const Node<L>* get_root_node() const { return root; }
  Node<L>* get_root_node() { return root; }

  template <class Out>
  void copy_left(Out* out) const {
    copy_sequence(left, out);
  }
  template <class Out>
  void copy_right(Out* out) const {
    copy_sequence(right, out);
  }
  template <class Out>
  void copy_feature_index(Out* out) const {
    copy_sequence(feature_index, out);
  }
  template <class Out>
  void copy_threshold(Out* out) const {
    copy_sequence(threshold, out);
  }
  template <class Out>
  void copy_label(Out* out) const {
    copy_sequence(label, out);
  }

  // Empties the sequences; root stays as it is.
  void clear() {
    nodes.clear();
    left.clear();
    right.clear();
    feature_index.clear();
    threshold.clear();
    label.clear();
  }

  // Rebuilds linked nodes from five views of length n >= 1 and returns the
  // root (column 0), owned by the caller. The columns are read and checked
  // by read_tree_columns (tree_encoding.h) before any node is built;
  // columns unreachable from the root are freed, not leaked. With keep set,
  // the sequences are filled too (feature_index only sized).
  template <class E>
  Node<L>* vector_to_root(int n, const Array1D<E>& left_view, const Array1D<E>& right_view,
                          const Array1D<E>& feature_view, const Array1D<E>& threshold_view,
                          const Array1D<E>& label_view, bool keep);

  Node<L>* root = nullptr;
  std::vector<Node<L>*> nodes;
  std::vector<int> left;
  std::vector<int> right;
  std::vector<int> feature_index;
  std::vector<double> threshold;
  std::vector<L> label;

private:
  template <class T, class Out>
  static void copy_sequence(const std::vector<T>& values, Out* out) {
    for (size_t i = 0; i < values.size(); ++i) out[i] = static_cast<Out>(values[i]);
  }

  void append(Node<L>* node) {
    nodes.push_back(node);
    left.push_back(-1);
    right.push_back(-1);
    feature_index.push_back(node->get_feature_index());
    threshold.push_back(node->get_threshold());
    label.push_back(node->get_label());
  }
};

template <class L>
void VectorizedTree<L>::root_to_vector(Node<L>* root_node) {
  nodes.clear();
  append(root_node);
  for (size_t i = 0; i < nodes.size(); ++i) {
    Node<L>* node = nodes[i];
    if (node->get_left() != nullptr) {
      append(node->get_left());
      left[i] = static_cast<int>(nodes.size() - 1);
    }
    if (node->get_right() != nullptr) {
      append(node->get_right());
      right[i] = static_cast<int>(nodes.size() - 1);
    }
  }
}

template <class L>
template <class E>
Node<L>* VectorizedTree<L>::vector_to_root(int n, const Array1D<E>& left_view, const Array1D<E>& right_view,
                                           const Array1D<E>& feature_view, const Array1D<E>& threshold_view,
                                           const Array1D<E>& label_view, bool keep) {
  const size_t count = static_cast<size_t>(n);
  // Checked first, so nothing is allocated for a bad encoding.
  std::vector<EncodedColumn> columns;
  std::vector<char> has_parent;
  read_tree_columns(n, left_view, right_view, feature_view, threshold_view, label_view, columns, has_parent);

  std::vector<Node<L>*> built(count, nullptr);
  try {
    for (size_t i = 0; i < count; ++i) built[i] = new Node<L>();
  } catch (...) {
    for (Node<L>* node : built) delete node;
    throw;
  }
  if (keep) {
    nodes = built;
    left.resize(count);
    right.resize(count);
    feature_index.assign(count, 0);
    threshold.resize(count);
    label.resize(count);
    for (size_t i = 0; i < count; ++i) {
      left[i] = columns[i].left;
      right[i] = columns[i].right;
      threshold[i] = columns[i].threshold;
      label[i] = static_cast<L>(columns[i].label);
    }
  }
  for (size_t i = 0; i < count; ++i) {
    Node<L>* node = built[i];
    if (columns[i].left >= 0) node->set_left(built[static_cast<size_t>(columns[i].left)]);
    if (columns[i].right >= 0) node->set_right(built[static_cast<size_t>(columns[i].right)]);
    node->set_threshold(columns[i].threshold);
    node->set_label(static_cast<L>(columns[i].label));
    node->set_feature_index(columns[i].feature);
  }

  // Every node has at most one parent and the root none, so the columns
  // reachable from the root form a tree; free the rest one by one (they may
  // link among themselves, even in a cycle, so unlink before deleting).
  std::vector<char> reachable(count, 0);
  std::vector<size_t> stack{0};
  reachable[0] = 1;
  while (!stack.empty()) {
    const size_t i = stack.back();
    stack.pop_back();
    for (const int32_t child : {columns[i].left, columns[i].right}) {
      if (child >= 0 && !reachable[static_cast<size_t>(child)]) {
        reachable[static_cast<size_t>(child)] = 1;
        stack.push_back(static_cast<size_t>(child));
      }
    }
  }
  for (size_t i = 0; i < count; ++i) {
    if (reachable[i]) continue;
    built[i]->set_left(nullptr);
    built[i]->set_right(nullptr);
    delete built[i];
    if (keep) nodes[i] = nullptr;
  }
  root = built[0];
  return root;
}

}  // namespace Velmot

#endif
