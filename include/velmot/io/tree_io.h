#ifndef VELMOT_IO_TREE_IO_H
#define VELMOT_IO_TREE_IO_H

// Reader of the parenthesised tree text, e.g.
//
//   (threshold 0.5 findex 3 label 0
//     left (label 0)
//     right (threshold 2.25 findex 1 label 1 left (label 1) right (label 2)))
//
// Two layers: read_tree_tokens cuts exactly one tree's worth of tokens from
// a stream (balanced parentheses; "(" and ")" are tokens of their own), and
// tokens_to_tree builds the nodes. A missing item leaves no child, threshold
// NaN, label 0 (not the -2 of a default node) and feature index -1. Numbers
// are the next token, whatever it holds, read with strtod/strtol (longest
// valid prefix, 0 for none).
//
// Failures: "unbalanced parentheses" is thrown as a bare std::string (the
// module reports it without prefix); the others are library exceptions.
//
// The parser keeps its own stack instead of recursing, so that deeply
// nested text cannot exhaust the thread's stack, and owns every node it has
// built until it hands the root over, so that no failure leaks.

#include <cmath>
#include <cstdlib>
#include <istream>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/learn/tree.h"

namespace Velmot {

// The tokens of the next tree in the stream, up to and including the
// parenthesis that closes it; the rest of the stream is left unread. Empty
// when the stream holds no more tokens. Throws Exception "too many )s" and
// the bare string "unbalanced parentheses".
std::vector<std::string> read_tree_tokens(std::istream& in);

namespace tree_text {

// A label number converted to the label type: truncation toward zero for
// integer labels. A value no int can hold is refused rather than converted
// with an undefined result.
template <class L>
L label_from_number(double value, const std::string& token) {
  if constexpr (std::is_integral<L>::value) {
    if (!fits_in_int32(value)) {
      throw Exception("label out of range: " + token);
    }
  }
  return static_cast<L>(value);
}

template <class L>
struct PendingNode {
  explicit PendingNode(Node<L>* node) : node(node) {}
  Node<L>* node;
  std::unique_ptr<Node<L>> left;
  std::unique_ptr<Node<L>> right;
  double threshold = std::numeric_limits<double>::quiet_NaN();
  double label = 0.0;
  int feature_index = -1;
  std::string label_token;
  // Which side the subtree being parsed below this one goes to.
  bool child_is_left = false;
};

}  // namespace tree_text

// Fills `node` from the tokens at [begin, end) and returns the position after
// the tokens consumed. On failure nothing is stored into `node` and every
// node built below it is freed.
template <class Iterator, class L>
Iterator tokens_to_tree(Iterator begin, Iterator end, Node<L>* node) {
  typedef tree_text::PendingNode<L> Pending;
  std::vector<std::unique_ptr<Node<L>>> subtree_nodes;  // nodes of open subtrees
  std::vector<Pending> open;
  Iterator at = begin;

  auto start_tree = [&](Node<L>* target) {
    if (at == end) throw Exception("no tree parsable in stream.");
    if (*at != "(") throw FileFormatException("expected ( to start tree.");
    ++at;
    open.emplace_back(target);
  };
  auto number_after = [&](const char* keyword) -> const std::string& {
    ++at;
    if (at == end) throw Exception(std::string("expected number after ") + keyword + " token");
    const std::string& number = *at;
    ++at;
    return number;
  };

  start_tree(node);
  while (true) {
    Pending& current = open.back();
    bool finished = false;
    if (at == end) {
      finished = true;
    } else if (*at == ")") {
      ++at;
      finished = true;
    } else if (*at == "left" || *at == "right") {
      current.child_is_left = *at == "left";
      ++at;
      subtree_nodes.emplace_back(new Node<L>());
      start_tree(subtree_nodes.back().get());
      continue;
    } else if (*at == "threshold") {
      current.threshold = std::strtod(number_after("threshold").c_str(), nullptr);
    } else if (*at == "label") {
      current.label_token = number_after("label");
      current.label = std::strtod(current.label_token.c_str(), nullptr);
    } else if (*at == "findex") {
      current.feature_index = static_cast<int>(std::strtol(number_after("findex").c_str(), nullptr, 10));
    } else {
      throw Exception("unexpected token: " + *at);
    }
    if (!finished) continue;

    // Store the finished node; a later "left"/"right" replaced (and freed)
    // an earlier one.
    const L label = tree_text::label_from_number<L>(current.label, current.label_token);
    current.node->set_left(current.left.release());
    current.node->set_right(current.right.release());
    current.node->set_threshold(current.threshold);
    current.node->set_label(label);
    current.node->set_feature_index(current.feature_index);
    open.pop_back();
    if (open.empty()) return at;
    std::unique_ptr<Node<L>> child(subtree_nodes.back().release());
    subtree_nodes.pop_back();
    Pending& parent = open.back();
    (parent.child_is_left ? parent.left : parent.right) = std::move(child);
  }
}

// Reads the next tree of the stream; null when no tokens are left. The
// caller owns the tree. Throws DataIOException (line -1) "not all tokens
// used" when the tree closes before its last token (a number keyword took a
// parenthesis as its number).
template <class L>
Node<L>* read_tree_as_lisp(std::istream& in) {
  const std::vector<std::string> tokens = read_tree_tokens(in);
  if (tokens.empty()) return nullptr;
  std::unique_ptr<Node<L>> root(new Node<L>());
  if (tokens_to_tree(tokens.begin(), tokens.end(), root.get()) != tokens.end()) {
    throw DataIOException(-1, "not all tokens used");
  }
  return root.release();
}

}  // namespace Velmot

#endif
