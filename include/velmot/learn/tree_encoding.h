#ifndef VELMOT_LEARN_TREE_ENCODING_H
#define VELMOT_LEARN_TREE_ENCODING_H

// Reading the tree array encoding: n columns, one per node, in five rows
// (strided views of float or double elements):
//   row 0, 1  left, right child: a value of 0 or more, truncated, is the
//             child's column; a negative value or NaN means no child
//   row 2     feature index, truncated toward zero
//   row 3     threshold, widened to double
//   row 4     label, truncated toward zero
// Any numbering with the root in column 0 is accepted. What would make
// descent or freeing the tree undefined is refused with an Exception, in
// column order, before any node is built: a child index past the end, the
// root as somebody's child, a node with two parents, a feature index or
// label no int holds. With at most one parent per node and none for the
// root, the columns reachable from column 0 form a tree.
//
// Every consumer of tree arrays (linked nodes, the flat prediction layout)
// reads them here, so all refuse the same arrays with the same messages.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"

namespace Velmot {

// One column, read and checked; -1 for an absent child.
struct EncodedColumn {
  double threshold;
  int32_t left, right, feature, label;
};

namespace tree_encoding {

inline int32_t child_column(double value, int n) {
  if (!(value >= 0.0)) return -1;
  if (value >= static_cast<double>(n)) throw Exception("tree array: child index out of range");
  return static_cast<int32_t>(value);
}

// Truncation toward zero into int; values no int can hold are refused
// rather than converted with undefined results.
inline int32_t truncate_to_int(double value, const char* what) {
  if (!fits_in_int32(value)) throw Exception(std::string("tree array: ") + what + " out of range");
  return static_cast<int32_t>(value);
}

}  // namespace tree_encoding

// Reads the n >= 1 columns of the five rows into `columns` (resized to n),
// checking each as above; `has_parent` is workspace. Returns the number of
// columns with at least one child.
template <class E>
size_t read_tree_columns(int n, const Array1D<E>& left_row, const Array1D<E>& right_row, const Array1D<E>& feature_row,
                         const Array1D<E>& threshold_row, const Array1D<E>& label_row,
                         std::vector<EncodedColumn>& columns, std::vector<char>& has_parent) {
  using tree_encoding::child_column;
  using tree_encoding::truncate_to_int;
  const size_t count = static_cast<size_t>(n);
  columns.resize(count);
  has_parent.assign(count, 0);
  size_t with_children = 0;
  for (size_t i = 0; i < count; ++i) {
    EncodedColumn& column = columns[i];
    column.left = child_column(static_cast<double>(left_row[i]), n);
    column.right = child_column(static_cast<double>(right_row[i]), n);
    for (const int32_t child : {column.left, column.right}) {
      if (child < 0) continue;
      if (child == 0) throw Exception("tree array: the root (column 0) cannot be a child");
      if (has_parent[static_cast<size_t>(child)]) {
        throw Exception("tree array: a node is the child of more than one node");
      }
      has_parent[static_cast<size_t>(child)] = 1;
    }
    with_children += (column.left >= 0 || column.right >= 0);
    column.feature = truncate_to_int(static_cast<double>(feature_row[i]), "feature index");
    column.label = truncate_to_int(static_cast<double>(label_row[i]), "label");
    column.threshold = static_cast<double>(threshold_row[i]);
  }
  return with_children;
}

}  // namespace Velmot

#endif
