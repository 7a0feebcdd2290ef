#ifndef PYVELMOT_FOREST_CONVERSION_H
#define PYVELMOT_FOREST_CONVERSION_H

// Trees across the Python boundary. A tree travels as a float64 array of
// shape (5, n), one column per node in breadth-first order, rows: left
// child, right child (-1: none), feature index, threshold, label. A forest
// comes back as tree text (str or bytes, cut at the first NUL) or as a
// sequence of float32/float64 tree arrays, and is laid out for prediction
// (velmot/learn/flat_forest.h) without linked nodes for the arrays.
//
// Failures are thrown as ModuleError; the text reader and the checks of
// the array encoding add their own exceptions.

#include "numpy_api.h"

#include "velmot/learn/flat_forest.h"
#include "velmot/learn/tree.h"

namespace PyVelmot {

// A new float64 array (5, n) holding the flattened tree; a new reference.
template <class L>
PyObject* get_numpy_array_from_vectorized_tree(Velmot::VectorizedTree<L>& tree);

// Appends the trees of `forest` to `out`, in order. Sequence items that are
// not exactly numpy arrays, and arrays without columns, give no tree. Tree
// arrays are laid out on the current OpenMP team; whatever fails, the
// error raised is the one a conversion in list order meets first.
void convert_forest(PyObject* forest, Velmot::FlatForest& out);

}  // namespace PyVelmot

#endif
