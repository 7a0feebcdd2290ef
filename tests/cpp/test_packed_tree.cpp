// Packed trees give their node arrays back bit for bit when joined, the
// fields they leave out included: a leaf that kept its split's threshold,
// NaNs of other payloads, -0.0, a leaf of value -2, counts around the
// one-byte limit and at int32's.

#include <gtest/gtest.h>

#include "velmot/learn/packed_tree.h"

using Tree = Velmot::ForestArrays;

// A root split whose left child splits again; leaves fresh or not.
static Tree five_nodes(double leftover_threshold, int64_t count) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  return {{0, 5},         {1, 3, -1, -1, -1},          {2, 4, -1, -1, -1},      {2, 0, -1, -1, -1}, {-2, -2, 1, 0, -2},
          {0.5, -1.25, leftover_threshold, nan, -nan}, {count, 255, 254, 4, 0}, {0.25, -0.0, 0.0, nan, 1.0}};
}

TEST(PackedTree, JoinGivesTheTreesBackBitForBit) {
  const Tree first = five_nodes(3.75, std::numeric_limits<int32_t>::max()), second = five_nodes(std::nan("7"), 11);
  std::vector<Velmot::PackedTree<int32_t>> packed{Velmot::PackedTree<int32_t>(first),
                                                  Velmot::PackedTree<int32_t>(second)};
  const Tree forest = Velmot::join_packed_trees(packed);
  EXPECT_EQ(forest.offsets, (std::vector<int64_t>{0, 5, 10}));
  const auto same = [&](auto member) {
    auto joined = first.*member;
    joined.insert(joined.end(), (second.*member).begin(), (second.*member).end());
    const auto& got = forest.*member;
    return got.size() == joined.size() && std::memcmp(got.data(), joined.data(), got.size() * sizeof got[0]) == 0;
  };
  EXPECT_TRUE(same(&Tree::left) && same(&Tree::right) && same(&Tree::feature) && same(&Tree::value));
  EXPECT_TRUE(same(&Tree::threshold) && same(&Tree::count) && same(&Tree::impurity));
}
