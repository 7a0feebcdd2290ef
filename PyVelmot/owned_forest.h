#ifndef PYVELMOT_OWNED_FOREST_H
#define PYVELMOT_OWNED_FOREST_H

// The trees of one call, owned so that every exit (an exception included)
// frees them. The library hands forests around as vectors of root pointers;
// this holds such a vector and deletes the roots on destruction.

#include <memory>
#include <utility>
#include <vector>

#include "velmot/learn/tree.h"

namespace PyVelmot {

template <class L>
class OwnedForest {
public:
  OwnedForest() = default;
  // Takes ownership of every root of `trees` (null entries are allowed).
  explicit OwnedForest(std::vector<Velmot::Node<L>*>&& trees) : trees(std::move(trees)) {}
  OwnedForest(const OwnedForest&) = delete;
  OwnedForest& operator=(const OwnedForest&) = delete;
  ~OwnedForest() {
    for (Velmot::Node<L>* root : trees) delete root;
  }

  void adopt(Velmot::Node<L>* root) {
    std::unique_ptr<Velmot::Node<L>> owned(root);
    trees.push_back(root);
    owned.release();
  }

  void swap(OwnedForest& other) noexcept { trees.swap(other.trees); }

  const std::vector<Velmot::Node<L>*>& roots() const { return trees; }
  size_t size() const { return trees.size(); }

private:
  std::vector<Velmot::Node<L>*> trees;
};

}  // namespace PyVelmot

#endif
