#ifndef VELMOT_FUZZ_TREE_INVARIANTS_H
#define VELMOT_FUZZ_TREE_INVARIANTS_H

// What reading any text as a forest of parenthesised trees must satisfy,
// checked by the fuzz target and by the replay of its saved inputs.

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/io/tree_io.h"
#include "velmot/learn/tree.h"

namespace VelmotFuzz {

inline long count_nodes(const Velmot::Node<int>* root) {
  long count = 0;
  std::vector<const Velmot::Node<int>*> pending{root};
  while (!pending.empty()) {
    const Velmot::Node<int>* node = pending.back();
    pending.pop_back();
    ++count;
    if (node->get_left() != nullptr) pending.push_back(node->get_left());
    if (node->get_right() != nullptr) pending.push_back(node->get_right());
  }
  return count;
}

// Reads trees from `text` until none is left, as a forest given as a string
// is read; returns "" when that ends normally, in a library exception or in
// the one bare-string failure, else what went wrong. Any other exception
// escapes.
inline std::string tree_reading_fault(const std::string& text) {
  std::istringstream in(text);
  long nodes = 0;
  try {
    while (true) {
      const std::unique_ptr<Velmot::Node<int>> tree(Velmot::read_tree_as_lisp<int>(in));
      if (!tree) break;
      nodes += count_nodes(tree.get());
    }
  } catch (const Velmot::Exception&) {
  } catch (const std::string& message) {
    if (message != "unbalanced parentheses") return "unexpected thrown string: " + message;
  }
  // Every node is opened by a parenthesis of its own.
  if (nodes > std::count(text.begin(), text.end(), '(')) return "more nodes than opening parentheses";
  return "";
}

}  // namespace VelmotFuzz

#endif
