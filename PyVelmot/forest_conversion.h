#ifndef PYVELMOT_FOREST_CONVERSION_H
#define PYVELMOT_FOREST_CONVERSION_H

// Trees across the Python boundary. A tree travels as a float64 array of
// shape (5, n), one column per node in breadth-first order, rows: left
// child, right child (-1: none), feature index, threshold, label. A forest
// comes back as tree text (str or bytes, cut at the first NUL) or as a
// sequence of float32/float64 tree arrays.
//
// Failures are thrown as ModuleError; the text reader adds its own
// exceptions.

#include "numpy_api.h"

#include "owned_forest.h"
#include "velmot/learn/tree.h"

namespace PyVelmot {

// A new float64 array (5, n) holding the flattened tree; a new reference.
template <class L>
PyObject* get_numpy_array_from_vectorized_tree(Velmot::VectorizedTree<L>& tree);

// The root of a tree rebuilt from a (>= 5, n) array of element type E
// (float or double; rows past the fifth ignored), owned by the caller, or
// null for an array without columns.
template <class L, class E>
Velmot::Node<L>* convert_array_to_tree(PyObject* array);

// Appends the trees of `forest` to `out`, in order. Sequence items that are
// not exactly numpy arrays, and arrays without columns, give no tree. The
// trees converted before a failure stay in `out` (which frees them).
void convert_forest(PyObject* forest, OwnedForest<int>& out);

}  // namespace PyVelmot

#endif
