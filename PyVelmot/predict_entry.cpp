// The four class predictors and eight probability functions: a forest (tree
// arrays or tree text) and a numpy matrix in, results written into the
// caller's output array through its strides.

#include <omp.h>

#include <cstring>
#include <vector>

#include "argument_checks.h"
#include "boundary.h"
#include "entry_points.h"
#include "forest_conversion.h"
#include "method_list.h"
#include "owned_forest.h"
#include "velmot/dataset/dataset.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/random.h"
#include "velmot/learn/forest_classifier.h"

namespace PyVelmot {

namespace {

// What a prediction call shares between test and prob after its arguments
// are parsed: the checked instance matrix, read into column storage with
// missing values imputed as learning does, and the rebuilt forest.
template <class F, class L>
struct PredictionInput {
  PredictionInput(PyObject* x_object, PyObject* forest_object, int num_classes, int num_threads) {
    PyArrayObject* x = reinterpret_cast<PyArrayObject*>(x_object);
    require_ndim("X_", x, 2, "features x instances");
    require_element_size("X_", x, sizeof(F), element_type_name<F>());
    require_class_count(num_classes);
    // Prediction draws nothing from the pool, but the process-wide team
    // size is bounded the same way for every call: far larger teams cannot
    // be started and end the process inside the runtime.
    require_thread_count(num_threads, Velmot::pool_size);
    omp_set_num_threads(num_threads);
    num_features = PyArray_DIM(x, 0);
    num_instances = PyArray_DIM(x, 1);
    x_array = x;
    forest_arg = forest_object;
    classes = num_classes;
  }

  // Separate from the constructor so that output checks run before the
  // forest is rebuilt and the matrix copied.
  void load() {
    convert_forest(forest_arg, forest);
    // Prediction needs no labels: one placeholder, repeated by a 0 stride.
    const int placeholder_label = 0;
    const Velmot::DisNativeArrayDataSet<F, L> native(
        static_cast<const unsigned char*>(PyArray_DATA(x_array)), &placeholder_label,
        static_cast<size_t>(num_instances), static_cast<size_t>(num_features), static_cast<size_t>(classes),
        static_cast<size_t>(PyArray_STRIDE(x_array, 1)), static_cast<size_t>(PyArray_STRIDE(x_array, 0)), 0);
    dataset.copy_from(native);
    dataset.impute();
  }

  npy_intp num_features = 0;
  npy_intp num_instances = 0;
  int classes = 0;
  PyArrayObject* x_array = nullptr;
  PyObject* forest_arg = nullptr;
  OwnedForest<L> forest;
  Velmot::MemoryDataSet<F, L> dataset;
};

// The float returned by test_* and prob_*: it carries no meaning, callers
// ignore it.
PyObject* meaningless_result() { return Py_BuildValue("d", 0.0); }

}  // namespace

template <class F, class L>
PyObject* test_wrap(PyObject*, PyObject* args) {
  PyObject* x_object = nullptr;
  PyObject* forest_object = nullptr;
  int num_classes = 0;
  PyObject* labels_object = nullptr;
  int num_threads = 0;
  if (!PyArg_ParseTuple(args, "O!OiO!i", &PyArray_Type, &x_object, &forest_object, &num_classes, &PyArray_Type,
                        &labels_object, &num_threads)) {
    return nullptr;
  }
  return guarded_call([&]() -> PyObject* {
    PredictionInput<F, L> input(x_object, forest_object, num_classes, num_threads);
    PyArrayObject* labels_out = reinterpret_cast<PyArrayObject*>(labels_object);
    require_min_ndim("labels_out_", labels_out, 1);
    require_dim_at_least("labels_out_", labels_out, 0, input.num_instances, "instances");
    require_element_size("labels_out_", labels_out, sizeof(int), "int32");
    require_writeable("labels_out_", labels_out);
    input.load();

    Velmot::BaseForestClassifier<L> predictor(num_classes);
    predictor.use_forest(input.forest.roots());
    std::vector<int> predicted_labels;
    predictor.predict(input.dataset, predicted_labels);

    unsigned char* out = static_cast<unsigned char*>(PyArray_DATA(labels_out));
    const npy_intp stride = PyArray_STRIDE(labels_out, 0);
    for (size_t i = 0; i < predicted_labels.size(); ++i) {
      std::memcpy(out + static_cast<npy_intp>(i) * stride, &predicted_labels[i], sizeof(int));
    }
    return meaningless_result();
  });
}

template <class F, class L, class T>
PyObject* prob_wrap(PyObject*, PyObject* args) {
  PyObject* x_object = nullptr;
  PyObject* forest_object = nullptr;
  int num_classes = 0;
  PyObject* probs_object = nullptr;
  int num_threads = 0;
  if (!PyArg_ParseTuple(args, "O!OiO!i", &PyArray_Type, &x_object, &forest_object, &num_classes, &PyArray_Type,
                        &probs_object, &num_threads)) {
    return nullptr;
  }
  return guarded_call([&]() -> PyObject* {
    PredictionInput<F, L> input(x_object, forest_object, num_classes, num_threads);
    PyArrayObject* probs_out = reinterpret_cast<PyArrayObject*>(probs_object);
    require_ndim("probs_out_", probs_out, 2, "instances x classes");
    require_dim_at_least("probs_out_", probs_out, 0, input.num_instances, "instances");
    require_dim_at_least("probs_out_", probs_out, 1, num_classes, "classes");
    require_element_size("probs_out_", probs_out, sizeof(T), element_type_name<T>());
    require_writeable("probs_out_", probs_out);
    require_int_strides("probs_out_", probs_out);
    input.load();

    Velmot::BaseForestClassifier<L> predictor(num_classes);
    predictor.use_forest(input.forest.roots());
    Velmot::Array2D<T> probabilities(static_cast<T*>(PyArray_DATA(probs_out)),
                                     static_cast<int>(PyArray_DIM(probs_out, 0)),
                                     static_cast<int>(PyArray_DIM(probs_out, 1)),
                                     static_cast<int>(PyArray_STRIDE(probs_out, 0)),
                                     static_cast<int>(PyArray_STRIDE(probs_out, 1)));
    predictor.compute_probabilities(input.dataset, probabilities);
    return meaningless_result();
  });
}

#define PYVELMOT_INSTANTIATE_TESTER(suffix, F, L) template PyObject* test_wrap<F, L>(PyObject*, PyObject*);
PYVELMOT_TESTERS(PYVELMOT_INSTANTIATE_TESTER)
#undef PYVELMOT_INSTANTIATE_TESTER

#define PYVELMOT_INSTANTIATE_PROB(suffix, F, L, T) template PyObject* prob_wrap<F, L, T>(PyObject*, PyObject*);
PYVELMOT_PROBABILITY_FUNCTIONS(PYVELMOT_INSTANTIATE_PROB)
#undef PYVELMOT_INSTANTIATE_PROB

}  // namespace PyVelmot
