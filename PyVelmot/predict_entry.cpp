// The four class predictors and eight probability functions: a forest (tree
// arrays or tree text) and a numpy matrix in, results written into the
// caller's output array through its strides.

#include <omp.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "argument_checks.h"
#include "boundary.h"
#include "entry_points.h"
#include "forest_conversion.h"
#include "method_list.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/dataset/upper_median.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/labeling.h"
#include "velmot/defs/random.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_classifier.h"

namespace PyVelmot {

namespace {

// The instance matrix read in place through its strides (dimension 0
// features, dimension 1 instances), as the forest predictor's data set: the
// library's view of a native matrix, which keeps numpy's 64-bit strides
// and reads unaligned elements. A missing value of a floating-point feature
// reads as that feature's fill, the value MemoryDataSet::impute would put
// there (upper_median.h, over the same values in the same order), so
// prediction sees what learning sees without copying the matrix.
template <class F>
class InstanceMatrix {
public:
  InstanceMatrix(PyArrayObject* x, int num_classes)
      : matrix(static_cast<const unsigned char*>(PyArray_DATA(x)), &placeholder_label,
               static_cast<size_t>(PyArray_DIM(x, 1)), static_cast<size_t>(PyArray_DIM(x, 0)),
               static_cast<size_t>(num_classes), static_cast<size_t>(PyArray_STRIDE(x, 1)),
               static_cast<size_t>(PyArray_STRIDE(x, 0)), 0) {
    if constexpr (std::is_floating_point<F>::value) find_fills();
  }

  size_t get_num_instances() const { return matrix.get_num_instances(); }
  size_t get_num_features() const { return matrix.get_num_features(); }
  size_t get_num_classes() const { return matrix.get_num_classes(); }
  Velmot::LabelingType get_labeling() const { return matrix.get_labeling(); }

  F operator()(size_t i, size_t j) const {
    const F value = matrix(i, j);
    if constexpr (std::is_floating_point<F>::value) {
      if (value != value) return fills[j];
    }
    return value;
  }

private:
  // Prediction needs no labels: every instance gets this one (stride 0).
  static constexpr int placeholder_label = 0;

  void find_fills() {
    const size_t num_features = matrix.get_num_features();
    const size_t num_instances = matrix.get_num_instances();
    std::vector<char> missing(num_features, 0);
    bool any_missing = false;
    // Scanned along the smaller stride, which is the matrix's memory order.
    const int64_t feature_stride = static_cast<int64_t>(matrix.stride_j);
    const int64_t instance_stride = static_cast<int64_t>(matrix.stride_i);
    if (std::abs(feature_stride) <= std::abs(instance_stride)) {
      for (size_t i = 0; i < num_instances; ++i) {
        for (size_t j = 0; j < num_features; ++j) {
          if (matrix(i, j) != matrix(i, j)) missing[j] = any_missing = true;
        }
      }
    } else {
      for (size_t j = 0; j < num_features; ++j) {
        for (size_t i = 0; i < num_instances && !missing[j]; ++i) {
          if (matrix(i, j) != matrix(i, j)) missing[j] = any_missing = true;
        }
      }
    }
    if (!any_missing) return;
    fills.assign(num_features, F(0));
    std::vector<F> present;
    for (size_t j = 0; j < num_features; ++j) {
      if (!missing[j]) continue;
      fills[j] = Velmot::upper_median_fill(num_instances, [this, j](size_t i) { return matrix(i, j); }, present);
    }
  }

  const Velmot::DisNativeArrayDataSet<F, int> matrix;
  std::vector<F> fills;  // per feature; empty when nothing is missing
};

// What a prediction call shares between test and prob after its arguments
// are parsed: the checked instance matrix and the forest laid out for
// prediction.
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
    num_instances = PyArray_DIM(x, 1);
    x_array = x;
    forest_arg = forest_object;
    classes = num_classes;
  }

  // Separate from the constructor so that output checks run before the
  // forest is converted and the matrix scanned for missing values.
  void load() {
    convert_forest(forest_arg, forest);
    instances.reset(new InstanceMatrix<F>(x_array, classes));
  }

  npy_intp num_instances = 0;
  int classes = 0;
  PyArrayObject* x_array = nullptr;
  PyObject* forest_arg = nullptr;
  Velmot::FlatForest forest;
  std::unique_ptr<InstanceMatrix<F>> instances;
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
    predictor.use_forest(std::move(input.forest));
    std::vector<int> predicted_labels;
    predictor.predict(*input.instances, predicted_labels);

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
    predictor.use_forest(std::move(input.forest));
    Velmot::Array2D<T> probabilities(
        static_cast<T*>(PyArray_DATA(probs_out)), static_cast<int>(PyArray_DIM(probs_out, 0)),
        static_cast<int>(PyArray_DIM(probs_out, 1)), static_cast<int>(PyArray_STRIDE(probs_out, 0)),
        static_cast<int>(PyArray_STRIDE(probs_out, 1)));
    predictor.compute_probabilities(*input.instances, probabilities);
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
