// The twenty learners: numpy matrix and labels in, a list of tree arrays
// (and optionally the feature importances) out.

#include <omp.h>

#include <cmath>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "argument_checks.h"
#include "boundary.h"
#include "entry_points.h"
#include "forest_conversion.h"
#include "method_list.h"
#include "owned_forest.h"
#include "prepared_features.h"
#include "py_ref.h"
#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_forest.h"

namespace PyVelmot {

namespace {

// Trees end where fewer than two instances remain; the caller cannot change it.
constexpr int min_leaf_size = 1;

std::string invalid_label_message(const std::string& label, int num_classes) {
  return "invalid class label " + label +
         ". Labels must be >= 0 and < num_classes; num_classes=" + std::to_string(num_classes) + ".";
}

// Every label, as an int (real labels truncated toward zero), must lie in
// [0, num_classes): the real-label learners count classes too.
template <class L>
void check_labels(const std::vector<L>& labels, int num_classes) {
  for (const L label : labels) {
    if constexpr (std::is_floating_point<L>::value) {
      // No int holds these; say which value it was instead of converting.
      if (!Velmot::fits_in_int32(label)) {
        std::ostringstream text;
        text << label;
        throw ModuleError(invalid_label_message(text.str(), num_classes));
      }
    }
    const int class_label = static_cast<int>(label);
    if (class_label < 0 || class_label >= num_classes) {
      throw ModuleError(invalid_label_message(std::to_string(class_label), num_classes));
    }
  }
}

PyObject* importance_array(const std::vector<double>& importances) {
  npy_intp size = static_cast<npy_intp>(importances.size());
  PyObject* array = PyArray_New(&PyArray_Type, 1, &size, NPY_DOUBLE, nullptr, nullptr, 0, 0, nullptr);
  if (array == nullptr) {
    PyErr_Clear();
    throw ModuleError("cannot allocate numpy array");
  }
  double* out = static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(array)));
  for (size_t j = 0; j < importances.size(); ++j) out[j] = importances[j];
  return array;
}

template <class L>
PyObject* tree_list(const OwnedForest<L>& forest) {
  PyRef list(PyList_New(static_cast<Py_ssize_t>(forest.size())));
  if (!list) {
    PyErr_Clear();
    throw ModuleError("cannot allocate the list of trees");
  }
  Py_ssize_t k = 0;
  for (Velmot::Node<L>* root : forest.roots()) {
    Velmot::VectorizedTree<L> flat;
    flat.root_to_vector(root);
    PyList_SET_ITEM(list.get(), k++, get_numpy_array_from_vectorized_tree(flat));
  }
  return list.release();
}

}  // namespace

// Label check, imputation (of a fresh preparation) and the forest itself, on
// library types alone.
template <class L, class Prepared, class Criterion, class ImportanceVector>
void learn_impl(Prepared& prepared, bool fresh, OwnedForest<L>& forest, int num_trees, double sampling_prop,
                int fte_per_split, int max_depth, const Criterion& criteria, bool compute_feature_importances,
                ImportanceVector& feature_importances) {
  check_labels(prepared.dataset.labels, static_cast<int>(prepared.dataset.get_num_classes()));
  if (fresh) prepared.dataset.impute();
  OwnedForest<L> learnt(Velmot::learn_forest(prepared.dataset, prepared.ranks, num_trees, sampling_prop, fte_per_split,
                                             max_depth, min_leaf_size, criteria, compute_feature_importances,
                                             feature_importances));
  forest.swap(learnt);
}

template <class F, class L, class Criterion>
PyObject* learn_wrap(PyObject*, PyObject* args) {
  PyObject* x_object = nullptr;
  PyObject* y_object = nullptr;
  int num_classes = 0;
  int num_trees = 0;
  double sampling_prop = 0.0;
  int fte_per_split = 0;
  int max_depth = 0;
  int num_threads = 0;
  unsigned char compute_feature_importances = 0;
  if (!PyArg_ParseTuple(args, "O!O!iidiiib", &PyArray_Type, &x_object, &PyArray_Type, &y_object, &num_classes,
                        &num_trees, &sampling_prop, &fte_per_split, &max_depth, &num_threads,
                        &compute_feature_importances)) {
    return nullptr;
  }
  return guarded_call([&]() -> PyObject* {
    PyArrayObject* x = reinterpret_cast<PyArrayObject*>(x_object);
    PyArrayObject* y = reinterpret_cast<PyArrayObject*>(y_object);
    require_ndim("X_", x, 2, "features x instances");
    require_ndim("Y_", y, 1, "one label per instance");
    require_element_size("X_", x, sizeof(F), element_type_name<F>());
    require_element_size("Y_", y, sizeof(L), element_type_name<L>());
    const npy_intp num_features = PyArray_DIM(x, 0);
    const npy_intp num_instances = PyArray_DIM(x, 1);
    if (PyArray_DIM(y, 0) != num_instances) {
      throw ModuleError(
          "the number of labels must be the same as the number of rows (instances) in the instance matrix");
    }
    require_thread_count(num_threads, Velmot::pool_size);
    require_affordable_forest(num_trees);
    omp_set_num_threads(num_threads);

    const Velmot::DisNativeArrayDataSet<F, L> native(
        static_cast<const unsigned char*>(PyArray_DATA(x)), static_cast<const L*>(PyArray_DATA(y)),
        static_cast<size_t>(num_instances), static_cast<size_t>(num_features), static_cast<size_t>(num_classes),
        static_cast<size_t>(PyArray_STRIDE(x, 1)), static_cast<size_t>(PyArray_STRIDE(x, 0)),
        static_cast<size_t>(PyArray_STRIDE(y, 0)));
    // Features prepared by an earlier call on this matrix keep their copy,
    // imputation and ranks; only the labels are this call's.
    const StoredPreparation stored = find_preparation(x_object);
    PreparedFeatures<F, L>* prepared = reusable_preparation<F, L>(stored, x);
    std::unique_ptr<PreparedFeatures<F, L>> fresh;
    if (prepared == nullptr) {
      fresh = std::make_unique<PreparedFeatures<F, L>>(MatrixLayout(x));
      fresh->dataset.copy_from(native);
      prepared = fresh.get();
    } else {
      prepared->dataset.set_num_classes(native.nc);
      prepared->dataset.labels = native.labels;
    }

    OwnedForest<L> forest;
    std::vector<double> feature_importances(static_cast<size_t>(num_features), 0.0);
    learn_impl(*prepared, fresh != nullptr, forest, num_trees, sampling_prop, fte_per_split, max_depth, Criterion(),
               compute_feature_importances != 0, feature_importances);
    if (fresh && stored.opted_in) store_preparation(x_object, std::move(fresh));

    PyRef importances(compute_feature_importances ? importance_array(feature_importances)
                                                  : (Py_INCREF(Py_None), Py_None));
    PyRef trees(tree_list(forest));
    return Py_BuildValue("OO", trees.get(), importances.get());
  });
}

#define PYVELMOT_INSTANTIATE_LEARNER(suffix, F, L, C) template PyObject* learn_wrap<F, L, C>(PyObject*, PyObject*);
PYVELMOT_LEARNERS(PYVELMOT_INSTANTIATE_LEARNER)
#undef PYVELMOT_INSTANTIATE_LEARNER

}  // namespace PyVelmot
