#ifndef PYVELMOT_CORE_FOREST_VIEW_H
#define PYVELMOT_CORE_FOREST_VIEW_H

// A forest dict of node arrays (offsets, left, right, feature, threshold,
// value), as velmot._nodes.ForestNodes gives it, read in place as a
// ForestArraysView (int32 values: classes) or, for a regression forest's
// float64 leaf values, a RegressionForestArraysView. Missing entries, wrong element types and arrays of
// different lengths are refused here; the tree structure is checked by
// check_forest_arrays.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "array_checks.h"
#include "velmot/learn/forest_arrays_layout.h"

namespace PyVelmot::core {

namespace py = pybind11;

// The forest's array `name`, refused unless it is a numpy array already
// (a converted copy would not outlive the call that made it).
inline py::array forest_entry(const py::dict& forest, const char* name) {
  if (!forest.contains(name)) throw py::value_error(std::string("the forest has no '") + name + "' array");
  if (!py::isinstance<py::array>(forest[name])) {
    throw py::type_error(std::string("the forest's '") + name + "' entry must be a numpy array");
  }
  return py::reinterpret_borrow<py::array>(forest[name]);
}

// The view and the arrays it reads, held for as long as the view is used
// (another thread may change the dict while the GIL is released).
template <class Value>
struct HeldNodeArrays {
  std::vector<py::array> arrays;
  Velmot::NodeArraysView<Value> view;
};
typedef HeldNodeArrays<int32_t> HeldForest;

template <class Value = int32_t>
HeldNodeArrays<Value> forest_arrays_view(const py::dict& forest) {
  HeldNodeArrays<Value> held;
  for (const char* name : {"offsets", "left", "right", "feature", "threshold", "value"}) {
    held.arrays.push_back(forest_entry(forest, name));
  }
  const py::array &offsets = held.arrays[0], &left = held.arrays[1];
  Velmot::NodeArraysView<Value>& view = held.view;
  view.offsets = vector_of<int64_t>(offsets, "offsets");
  view.left = vector_of<int32_t>(left, "left");
  view.right = vector_of<int32_t>(held.arrays[2], "right");
  view.feature = vector_of<int32_t>(held.arrays[3], "feature");
  view.threshold = vector_of<double>(held.arrays[4], "threshold");
  view.value = vector_of<Value>(held.arrays[5], "value");
  if (offsets.shape(0) < 1) throw py::value_error("offsets must hold at least one entry");
  view.num_trees = static_cast<size_t>(offsets.shape(0) - 1);
  view.num_nodes = static_cast<size_t>(left.shape(0));
  for (size_t k = 2; k < held.arrays.size(); ++k) {
    if (held.arrays[k].shape(0) != left.shape(0)) throw py::value_error("the forest's node arrays differ in length");
  }
  return held;
}

}  // namespace PyVelmot::core

#endif
