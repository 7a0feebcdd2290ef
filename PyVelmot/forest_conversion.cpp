#include "forest_conversion.h"

#include <sstream>
#include <string>

#include "argument_checks.h"
#include "array_view.h"
#include "boundary.h"
#include "py_ref.h"
#include "text_argument.h"
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

template <class L, class E>
Velmot::Node<L>* convert_array_to_tree(PyObject* array) {
  const Velmot::Array2D<E> view = get_array_object<E>("forest[i]", array);
  if (view.num_rows() < 5) throw ModuleError("decision tree array must have at least 5 rows");
  const int n = view.num_cols();
  if (n == 0) return nullptr;
  // Narrowed to the views' 32-bit sizes, a column count or stride past them
  // would index memory the array does not have.
  if (n < 0) throw ModuleError("decision tree array has more than 2147483647 columns");
  require_int_strides("forest[i]", reinterpret_cast<PyArrayObject*>(array));
  Velmot::VectorizedTree<L> tree;
  return tree.vector_to_root(n, view.get_row(0), view.get_row(1), view.get_row(2), view.get_row(3),
                             view.get_row(4), false);
}

template Velmot::Node<int>* convert_array_to_tree<int, float>(PyObject*);
template Velmot::Node<int>* convert_array_to_tree<int, double>(PyObject*);

namespace {

void convert_text_forest(const std::string& text, OwnedForest<int>& out) {
  std::istringstream in(text);
  while (in.good()) {
    Velmot::Node<int>* root = Velmot::read_tree_as_lisp<int>(in);
    if (root != nullptr) out.adopt(root);
    in >> std::ws;
  }
}

void convert_array_forest(PyObject* forest, OwnedForest<int>& out) {
  const Py_ssize_t length = PySequence_Size(forest);
  if (length == -1) {
    PyErr_Clear();
    throw ModuleError("invalid sequence to represent python objects");
  }
  ssizeargfunc item_of = Py_TYPE(forest)->tp_as_sequence->sq_item;
  for (Py_ssize_t i = 0; i < length; ++i) {
    PyRef item(item_of(forest, i));
    if (!item) {
      // An item the sequence cannot give is skipped like any non-array.
      PyErr_Clear();
      continue;
    }
    if (Py_TYPE(item.get()) != &PyArray_Type) continue;
    Velmot::Node<int>* root = nullptr;
    switch (PyArray_TYPE(reinterpret_cast<PyArrayObject*>(item.get()))) {
      case NPY_FLOAT:
        root = convert_array_to_tree<int, float>(item.get());
        break;
      case NPY_DOUBLE:
        root = convert_array_to_tree<int, double>(item.get());
        break;
      default:
        throw ModuleError("only float32/float64 supported for numpy arrays that encode decision trees");
    }
    if (root != nullptr) out.adopt(root);
  }
}

}  // namespace

void convert_forest(PyObject* forest, OwnedForest<int>& out) {
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
