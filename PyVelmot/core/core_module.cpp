// velmot._core: the velmot package's own binding of the library's learner
// and of prediction over structure-of-arrays forests. Package-private: the
// package checks parameters before calling; this layer checks only what
// it needs to stay memory-safe and says what is wrong.
//
//   TrainingData(X, y, n_classes, n_threads)      X: (n_features, n_samples);
//                                                 y: int32 codes, or float64
//                                                 targets with n_classes 0
//   learn(data, criterion, seed, first_tree, last_tree, sample_prop,
//         features_per_split, max_depth, n_threads, on_progress) -> dict
//         (criterion "squared_error" for targets, the others for codes)
//   predict(forest dict, X, n_classes, n_threads, proba) -> codes or vote fractions
//   predict_mean(forest dict, X, n_threads) -> a regression forest's predictions
//
// Library failures arrive as ValueError with the library's own message;
// element types as TypeError, shapes as ValueError.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "array_checks.h"
#include "released_run.h"
#include "training_data.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/defs/exception.h"
#include "velmot/learn/forest_arrays_layout.h"
#include "velmot/learn/forest_classifier.h"
#include "velmot/learn/forest_regressor.h"
#include "velmot/learn/seeded_forest.h"

namespace py = pybind11;
using PyVelmot::core::TrainingData;

namespace {

// Trees end where fewer than two instances remain, as in every learner.
constexpr int min_leaf_size = 1;

template <class T>
py::array_t<T> to_numpy(std::vector<T>& values) {
  py::array_t<T> array(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), array.mutable_data());
  std::vector<T>().swap(values);
  return array;
}

// Learns with Criterion when the data's labels are L (int codes for the
// classification criteria, double targets for squared error).
template <class L, class Criterion>
Velmot::SeededForestOf<L> learn_with(const TrainingData& data, const Velmot::SeededForestSettings& settings,
                                     Velmot::LearningProgress& progress) {
  return data.visit([&](const auto& set) -> Velmot::SeededForestOf<L> {
    if constexpr (std::is_same<typename std::decay_t<decltype(set.data)>::label_type, L>::value) {
      return Velmot::learn_seeded_forest(set, settings, Criterion(), progress);
    } else {
      throw py::value_error("criterion 'squared_error' needs float64 targets, the others int32 class codes");
    }
  });
}

template <class L>
py::dict forest_dict(Velmot::SeededForestOf<L>& forest, int64_t num_trees, size_t num_features) {
  Velmot::NodeArrays<L>& trees = forest.trees;
  py::dict result;
  result["offsets"] = to_numpy(trees.offsets);
  result["left"] = to_numpy(trees.left);
  result["right"] = to_numpy(trees.right);
  result["feature"] = to_numpy(trees.feature);
  result["threshold"] = to_numpy(trees.threshold);
  result["value"] = to_numpy(trees.value);
  result["count"] = to_numpy(trees.count);
  result["impurity"] = to_numpy(trees.impurity);
  py::array_t<double> importances = to_numpy(forest.tree_importances);
  result["importances"] = importances.reshape({num_trees, static_cast<int64_t>(num_features)});
  return result;
}

py::dict learn(const TrainingData& data, const std::string& criterion, uint64_t seed, int64_t first_tree,
               int64_t last_tree, double sample_prop, int features_per_split, int max_depth, int num_threads,
               const py::object& on_progress) {
  Velmot::SeededForestSettings settings;
  settings.seed = seed;
  settings.first_tree = first_tree;
  settings.last_tree = last_tree;
  settings.sample_prop = sample_prop;
  settings.fte_per_split = features_per_split;
  settings.max_depth = max_depth;
  settings.min_leaf_size = min_leaf_size;
  // A fit this small runs on one thread: starting a team and waiting at its
  // closing barrier would cost more than the trees, and far more where
  // another process holds a core (100 trees on breast cancer's 569 samples,
  // a core busy: 32 ms on two threads against 29 ms on one). The forest does
  // not depend on it.
  constexpr double one_thread_draws = 65536.0;
  const double draws =
      sample_prop * static_cast<double>(data.num_samples()) * static_cast<double>(last_tree - first_tree);
  settings.num_threads = draws < one_thread_draws ? 1 : num_threads;
  Velmot::LearningProgress progress;
  if (criterion == "squared_error") {
    Velmot::SeededRegressionForest forest;
    PyVelmot::core::run_released([&]() { forest = learn_with<double, Velmot::SquaredError>(data, settings, progress); },
                                 progress, on_progress);
    return forest_dict(forest, last_tree - first_tree, data.num_features());
  }
  Velmot::SeededForest (*learner)(const TrainingData&, const Velmot::SeededForestSettings&, Velmot::LearningProgress&) =
      nullptr;
  if (criterion == "gini") learner = learn_with<int, Velmot::TwoSplitGiniImpurity>;
  if (criterion == "infogain") learner = learn_with<int, Velmot::TwoSplitInfoGain>;
  if (criterion == "gainratio") learner = learn_with<int, Velmot::TwoSplitGainRatio>;
  if (learner == nullptr) throw py::value_error("criterion must be 'gini', 'infogain', 'gainratio' or 'squared_error'");

  Velmot::SeededForest forest;
  PyVelmot::core::run_released([&]() { forest = learner(data, settings, progress); }, progress, on_progress);
  return forest_dict(forest, last_tree - first_tree, data.num_features());
}

// A forest dict's node arrays, viewed in place and checked for their
// element types and lengths; the leaf values are Value.
template <class Value>
Velmot::NodeArraysView<Value> node_arrays_of(const py::dict& forest) {
  using PyVelmot::core::vector_of;
  auto entry = [&](const char* name) -> py::array {
    if (!forest.contains(name)) throw py::value_error(std::string("the forest has no '") + name + "' array");
    py::array array = py::array::ensure(forest[name]);
    if (!array) throw py::type_error(std::string("the forest's '") + name + "' entry must be a numpy array");
    return array;
  };
  const py::array offsets = entry("offsets"), left = entry("left"), right = entry("right"), feature = entry("feature"),
                  threshold = entry("threshold"), value = entry("value");
  Velmot::NodeArraysView<Value> view;
  view.offsets = vector_of<int64_t>(offsets, "offsets");
  view.left = vector_of<int32_t>(left, "left");
  view.right = vector_of<int32_t>(right, "right");
  view.feature = vector_of<int32_t>(feature, "feature");
  view.threshold = vector_of<double>(threshold, "threshold");
  view.value = vector_of<Value>(value, "value");
  if (offsets.shape(0) < 1) throw py::value_error("offsets must hold at least one entry");
  view.num_trees = static_cast<size_t>(offsets.shape(0) - 1);
  view.num_nodes = static_cast<size_t>(left.shape(0));
  for (const py::array* row : {&right, &feature, &threshold, &value}) {
    if (row->shape(0) != left.shape(0)) throw py::value_error("the forest's node arrays differ in length");
  }
  return view;
}

// The samples X (n_samples, n_features) as a data set of F, read in place.
template <class F>
Velmot::DisNativeArrayDataSet<F, int> samples_of(const py::array& samples, int64_t num_classes) {
  static const int placeholder_label = 0;
  return Velmot::DisNativeArrayDataSet<F, int>(
      static_cast<const unsigned char*>(samples.data()), &placeholder_label, static_cast<size_t>(samples.shape(0)),
      static_cast<size_t>(samples.shape(1)), static_cast<size_t>(num_classes), static_cast<size_t>(samples.strides(0)),
      static_cast<size_t>(samples.strides(1)), 0);
}

// Labels (proba false: int32 codes, ties to the smallest) or vote
// fractions (proba true: float64, n_samples x n_classes) of a forest of
// node arrays for X (n_samples, n_features), through the forest predictor.
py::array predict(const py::dict& forest, const py::array& samples, int64_t num_classes, int num_threads, bool proba) {
  const Velmot::ForestArraysView view = node_arrays_of<int32_t>(forest);
  PyVelmot::core::require_ndim(samples, "X", 2);
  if (num_classes < 1 || num_classes > 2147483645) throw py::value_error("n_classes must be in [1, 2147483645]");
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  const py::ssize_t num_samples = samples.shape(0);
  if (proba && num_samples * num_classes * py::ssize_t(sizeof(double)) > 2147483647) {
    throw py::value_error("predict_proba takes at most 2^31 bytes of probabilities per call; pass fewer samples");
  }
  Velmot::check_forest_arrays(view, static_cast<size_t>(num_classes));
  py::array out = proba ? py::array(py::array_t<double>({num_samples, static_cast<py::ssize_t>(num_classes)}))
                        : py::array(py::array_t<int32_t>(num_samples));
  void* out_data = out.mutable_data();
  PyVelmot::core::with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    const Velmot::DisNativeArrayDataSet<F, int> data = samples_of<F>(samples, num_classes);
    py::gil_scoped_release released;
    omp_set_num_threads(num_threads);
    Velmot::ForestPredictor<int> predictor(static_cast<int>(num_classes));
    predictor.use_forest(Velmot::flat_forest_of(view));
    if (num_samples == 0) return;
    if (proba) {
      Velmot::Array2D<double> probabilities(static_cast<double*>(out_data), static_cast<int>(num_samples),
                                            static_cast<int>(num_classes));
      predictor.compute_probabilities(data, probabilities);
    } else {
      std::vector<int> labels;
      predictor.predict(data, labels);
      std::copy(labels.begin(), labels.end(), static_cast<int32_t*>(out_data));
    }
  });
  return out;
}

// The predictions of a regression forest of node arrays (float64 leaf
// values) for X (n_samples, n_features): each the mean of its trees' leaves.
py::array_t<double> predict_mean(const py::dict& forest, const py::array& samples, int num_threads) {
  const Velmot::RegressionForestArraysView view = node_arrays_of<double>(forest);
  PyVelmot::core::require_ndim(samples, "X", 2);
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  Velmot::check_forest_arrays(view, 0);
  py::array_t<double> out(samples.shape(0));
  double* means = out.mutable_data();
  PyVelmot::core::with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    const Velmot::DisNativeArrayDataSet<F, int> data = samples_of<F>(samples, 0);
    py::gil_scoped_release released;
    omp_set_num_threads(num_threads);
    Velmot::predict_means(Velmot::flat_forest_of(view), data, means);
  });
  return out;
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "The velmot package's learning and prediction core (package-private).";
  // The one boundary of this binding: library failures keep their message.
  // pybind11 hands its translators the exception by value.
  // NOLINTNEXTLINE(performance-unnecessary-value-param)
  py::register_exception_translator([](std::exception_ptr failure) {
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const Velmot::Exception& error) {
      PyErr_SetString(PyExc_ValueError, error.get_message().c_str());
    }
  });
  py::class_<TrainingData>(m, "TrainingData")
      .def(py::init<const py::array&, const py::array&, int64_t, int>(), py::arg("X"), py::arg("y"),
           py::arg("n_classes"), py::arg("n_threads"))
      .def_property_readonly("n_features", &TrainingData::num_features)
      .def_property_readonly("n_samples", &TrainingData::num_samples)
      .def_property_readonly("n_classes", &TrainingData::num_classes);
  m.def("learn", &learn, py::arg("data"), py::kw_only(), py::arg("criterion"), py::arg("seed"), py::arg("first_tree"),
        py::arg("last_tree"), py::arg("sample_prop"), py::arg("features_per_split"), py::arg("max_depth"),
        py::arg("n_threads"), py::arg("on_progress") = py::none(),
        "Trees [first_tree, last_tree) of the forest of `seed`: a dict of node arrays and per-tree importances.");
  m.def("predict", &predict, py::arg("forest"), py::arg("X"), py::arg("n_classes"), py::arg("n_threads"),
        py::arg("proba"),
        "Class codes (or, with proba, vote fractions) of a forest of node arrays for X (n_samples, n_features).");
  m.def("predict_mean", &predict_mean, py::arg("forest"), py::arg("X"), py::arg("n_threads"),
        "The mean leaf value of a regression forest of node arrays for each sample of X (n_samples, n_features).");
}
