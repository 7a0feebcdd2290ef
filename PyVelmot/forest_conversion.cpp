#include "forest_conversion.h"

#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "argument_checks.h"
#include "array_view.h"
#include "boundary.h"
#include "py_ref.h"
#include "text_argument.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/parallel.h"
#include "velmot/io/tree_io.h"

namespace PyVelmot {

template <class L>
PyObject* get_numpy_array_from_vectorized_tree(Velmot::VectorizedTree<L>& tree) {
  const int n = tree.num_nodes();
  npy_intp dims[2] = {5, n};
  PyObject* array = PyArray_New(&PyArray_Type, 2, dims, NPY_DOUBLE, nullptr, nullptr, 0, 0, nullptr);
  if (array == nullptr) {
    PyErr_Clear();
    throw ModuleError("cannot allocate numpy array");
  }
  double* rows = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(array)));
  tree.copy_left(rows);
  tree.copy_right(rows + n);
  tree.copy_feature_index(rows + 2 * n);
  tree.copy_threshold(rows + 3 * n);
  tree.copy_label(rows + 4 * n);
  return array;
}

template PyObject* get_numpy_array_from_vectorized_tree<int>(Velmot::VectorizedTree<int>&);
template PyObject* get_numpy_array_from_vectorized_tree<double>(Velmot::VectorizedTree<double>&);
template PyObject* get_numpy_array_from_vectorized_tree<float>(Velmot::VectorizedTree<float>&);

namespace {

void convert_text_forest(const std::string& text, Velmot::FlatForest& out) {
  std::istringstream in(text);
  while (in.good()) {
    std::unique_ptr<Velmot::Node<int>> root(Velmot::read_tree_as_lisp<int>(in));
    if (root) out.append(Velmot::flatten_tree(root.get()));
    in >> std::ws;
  }
}

// A tree array whose shape and strides passed their checks, held (the
// sequence may have made it just for us) until it is laid out.
struct TreeArray {
  PyRef array;
  bool single_precision;
  const unsigned char* data;
  int columns;
  int row_stride;
  int column_stride;
};

// Views `item` (a numpy array of element type E) as a tree array; false for
// an array without columns, which gives no tree.
template <class E>
bool view_tree_array(PyObject* item, TreeArray& tree) {
  const Velmot::Array2D<E> view = get_array_object<E>("forest[i]", item);
  if (view.num_rows() < 5) throw ModuleError("decision tree array must have at least 5 rows");
  const int n = view.num_cols();
  if (n == 0) return false;
  // Narrowed to the views' 32-bit sizes, a column count or stride past them
  // would index memory the array does not have.
  if (n < 0) throw ModuleError("decision tree array has more than " + std::to_string(Velmot::int32_max) + " columns");
  require_int_strides("forest[i]", reinterpret_cast<PyArrayObject*>(item));
  tree.single_precision = sizeof(E) == sizeof(float);
  tree.data = static_cast<const unsigned char*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(item)));
  tree.columns = n;
  tree.row_stride = view.row_stride();
  tree.column_stride = view.col_stride();
  return true;
}

template <class E>
Velmot::FlatTree flatten_tree_array(const TreeArray& tree, Velmot::EncodedTreeScratch& scratch) {
  unsigned char* data = const_cast<unsigned char*>(tree.data);
  auto row = [&](int64_t r) {
    return Velmot::Array1D<E>(data + r * tree.row_stride, tree.columns, tree.column_stride);
  };
  return Velmot::flatten_encoded_tree<E>(tree.columns, row(0), row(1), row(2), row(3), row(4), scratch);
}

// Collects the sequence's tree arrays in order, stopping at the first item
// that fails its checks; that failure is returned rather than thrown, so
// that the trees before it are checked first.
std::exception_ptr collect_tree_arrays(PyObject* forest, std::vector<TreeArray>& out) {
  const Py_ssize_t length = PySequence_Size(forest);
  if (length == -1) {
    PyErr_Clear();
    throw ModuleError("invalid sequence to represent python objects");
  }
  ssizeargfunc item_of = Py_TYPE(forest)->tp_as_sequence->sq_item;
  try {
    for (Py_ssize_t i = 0; i < length; ++i) {
      PyRef item(item_of(forest, i));
      if (!item) {
        // An item the sequence cannot give is skipped like any non-array.
        PyErr_Clear();
        continue;
      }
      if (Py_TYPE(item.get()) != &PyArray_Type) continue;
      TreeArray tree{nullptr, false, nullptr, 0, 0, 0};
      bool has_columns = false;
      switch (PyArray_TYPE(reinterpret_cast<PyArrayObject*>(item.get()))) {
        case NPY_FLOAT:
          has_columns = view_tree_array<float>(item.get(), tree);
          break;
        case NPY_DOUBLE:
          has_columns = view_tree_array<double>(item.get(), tree);
          break;
        default:
          throw ModuleError("only float32/float64 supported for numpy arrays that encode decision trees");
      }
      if (!has_columns) continue;
      tree.array = std::move(item);
      out.push_back(std::move(tree));
    }
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

void convert_array_forest(PyObject* forest, Velmot::FlatForest& out) {
  std::vector<TreeArray> arrays;
  const std::exception_ptr collect_error = collect_tree_arrays(forest, arrays);
  // Laid out in parallel (the arrays only read, no Python calls); errors
  // are kept per tree and the first in list order is raised.
  const int64_t count = static_cast<int64_t>(arrays.size());
  std::vector<Velmot::FlatTree> trees(arrays.size());
  std::vector<std::exception_ptr> errors(arrays.size());
  const int team = Velmot::default_team_size();
  std::vector<Velmot::EncodedTreeScratch> scratches(static_cast<size_t>(team));
  Velmot::for_each_index(count, team, [&](int64_t k, const Velmot::Worker& w) {
    Velmot::EncodedTreeScratch& scratch = scratches[static_cast<size_t>(w.number)];
    try {
      trees[k] = arrays[k].single_precision ? flatten_tree_array<float>(arrays[k], scratch)
                                            : flatten_tree_array<double>(arrays[k], scratch);
    } catch (...) {
      errors[k] = std::current_exception();
    }
  });
  for (const std::exception_ptr& error : errors) {
    if (error) std::rethrow_exception(error);
  }
  if (collect_error) std::rethrow_exception(collect_error);
  for (Velmot::FlatTree& tree : trees) out.append(std::move(tree));
}

}  // namespace

void convert_forest(PyObject* forest, Velmot::FlatForest& out) {
  // Text first, so that a string is never taken as a sequence of characters.
  if (is_text(forest)) {
    convert_text_forest(text_up_to_nul(forest), out);
  } else if (PySequence_Check(forest)) {
    convert_array_forest(forest, out);
  } else {
    throw ModuleError("forest must be a string or a sequence of float32/float64 arrays");
  }
}

}  // namespace PyVelmot
