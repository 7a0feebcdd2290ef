// Packed trees give their node arrays back bit for bit when joined, the
// fields they leave out included: a leaf that kept its split's threshold,
// NaNs of other payloads, -0.0, a leaf of value -2, counts around the
// one-byte limit and at int32's.

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/learn/packed_tree.h"

namespace {

using Tree = Velmot::ForestArrays;

template <class T>
bool same_bits(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// A root split whose left child splits again; leaves fresh or not.
Tree five_nodes(double leftover_threshold, int64_t count) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  Tree tree;
  tree.left = {1, 3, -1, -1, -1};
  tree.right = {2, 4, -1, -1, -1};
  tree.feature = {2, 0, -1, -1, -1};
  tree.threshold = {0.5, -1.25, leftover_threshold, nan, -nan};
  tree.value = {-2, -2, 1, 0, -2};
  tree.count = {count, 255, 254, 4, 0};
  tree.impurity = {0.25, -0.0, 0.0, nan, 1.0};
  tree.offsets = {0, 5};
  return tree;
}

TEST(PackedTree, JoinGivesTheTreesBackBitForBit) {
  const Tree first = five_nodes(3.75, std::numeric_limits<int32_t>::max()), second = five_nodes(std::nan("7"), 11);
  std::vector<Velmot::PackedTree<int32_t>> packed{Velmot::PackedTree<int32_t>(first),
                                                  Velmot::PackedTree<int32_t>(second)};
  const Tree forest = Velmot::join_packed_trees(packed);
  EXPECT_EQ(forest.offsets, (std::vector<int64_t>{0, 5, 10}));
  const auto both = [&](auto member) {
    auto joined = first.*member;
    joined.insert(joined.end(), (second.*member).begin(), (second.*member).end());
    return same_bits(forest.*member, joined);
  };
  EXPECT_TRUE(both(&Tree::left) && both(&Tree::right) && both(&Tree::feature) && both(&Tree::value));
  EXPECT_TRUE(both(&Tree::threshold) && both(&Tree::count) && both(&Tree::impurity));
}

TEST(PackedTree, RefusesTreesItCannotGiveBack) {
  Tree one_child = five_nodes(0.0, 1);
  one_child.right[1] = -1;
  EXPECT_THROW(Velmot::PackedTree<int32_t>{one_child}, Velmot::Exception);
  EXPECT_THROW(Velmot::PackedTree<int32_t>{five_nodes(0.0, int64_t(1) << 31)}, Velmot::Exception);
}

}  // namespace
