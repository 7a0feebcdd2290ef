#include <gtest/gtest.h>

#include "velmot/defs/contiguous_array_2d.h"

using Velmot::Array1D;
using Velmot::Array2D;

TEST(StridedViews, TransposedViewThroughStridesAlone) {
  // A 3 x 5 row-major block viewed as its 5 x 3 transpose.
  float block[15];
  for (int k = 0; k < 15; ++k) block[k] = static_cast<float>(k);
  Array2D<float> transposed(block, 5, 3, sizeof(float), 5 * sizeof(float));
  for (int i = 0; i < 5; ++i)
    for (int j = 0; j < 3; ++j) EXPECT_EQ(transposed(i, j), block[j * 5 + i]);
  transposed(4, 2) = -1.0f;
  EXPECT_EQ(block[14], -1.0f);
  EXPECT_EQ(transposed.get_row(1)[2], 11.0f);
  EXPECT_EQ(transposed.get_col(2)[4], -1.0f);
  EXPECT_EQ(transposed.get_col(2).size(), 5u);
}

TEST(StridedViews, SingleRowAndNegativeStrides) {
  double values[7] = {1, 2, 3, 4, 5, 6, 7};
  Array2D<double> one_row(values, 1, 7, 1, sizeof(double));
  EXPECT_EQ(one_row.get_row(0)[6], 7);
  Array1D<double> reversed(values + 6, 7, -static_cast<int>(sizeof(double)));
  EXPECT_EQ(reversed[0], 7);
  EXPECT_EQ(reversed[6], 1);
  int every_second[6] = {1, -1, 2, -1, 3, -1};
  Array1D<int> strided(every_second, 3, 2 * sizeof(int));
  strided[2] = 30;
  EXPECT_EQ(every_second[4], 30);
}
