// Packed trees give their node arrays back bit for bit when joined, the
// fields they leave out included: a leaf that kept its split's threshold,
// a NaN of another payload, -0.0, a leaf of value -2, counts around the
// one-byte limit and at int32's; children are numbered within each tree,
// on one thread and on two.

#include <gtest/gtest.h>

#include "velmot/learn/packed_tree.h"

using Tree = Velmot::ForestArrays;

TEST(PackedTree, JoinGivesTheTreesBackBitForBit) {
  // A root split whose left child splits again; leaves fresh or not.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Tree tree{{0, 5},
                  {1, 3, -1, -1, -1},
                  {2, 4, -1, -1, -1},
                  {2, 0, -1, -1, -1},
                  {-2, -2, 1, 0, -2},
                  {0.5, -1.25, 3.75, nan, -nan},
                  {std::numeric_limits<int32_t>::max(), 255, 254, 4, 0},
                  {0.25, -0.0, 0.0, nan, 1.0}};
  for (const int threads : {1, 2}) {
    SCOPED_TRACE(threads);
    std::vector<Velmot::PackedTree<int32_t>> packed(2, Velmot::PackedTree<int32_t>(tree));
    const Tree forest = Velmot::join_packed_trees(packed, threads);
    const auto twice = [&](auto member) {
      auto part = tree.*member, joined = part;
      joined.insert(joined.end(), part.begin(), part.end());
      return (forest.*member).size() == joined.size() &&
             std::memcmp((forest.*member).data(), joined.data(), joined.size() * sizeof joined[0]) == 0;
    };
    EXPECT_EQ(forest.offsets, (std::vector<int64_t>{0, 5, 10}));
    EXPECT_TRUE(twice(&Tree::left) && twice(&Tree::right) && twice(&Tree::feature));
    EXPECT_TRUE(twice(&Tree::value) && twice(&Tree::threshold) && twice(&Tree::count) && twice(&Tree::impurity));
  }
}
