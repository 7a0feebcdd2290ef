// velmot._core: the velmot package's own binding of the library's learner
// and of prediction over structure-of-arrays forests. Package-private: the
// package checks parameters before calling; this layer checks only what
// it needs to stay memory-safe and says what is wrong.
//
//   TrainingData(X, y, n_classes, n_threads, in_place=True)
//                                                 X: (n_features, n_samples),
//                                                 read in place (with in_place)
//                                                 if C-contiguous without NaN;
//                                                 y: int32 codes, or float64
//                                                 targets with n_classes 0
//     .upper_medians                               per feature, the value at
//                                                 sorted position n // 2 of a
//                                                 ranked column, NaN for one
//                                                 not ranked
//   learn(data, criterion, seed, first_tree, last_tree, sample_prop,
//         features_per_split, max_depth, n_threads, on_progress,
//         min_leaf_size, min_samples_leaf, min_impurity_decrease,
//         out_of_bag, sample_weight, prepare=False, last_use=False) -> dict
//         (with out_of_bag, the out-of-bag estimates; with prepare, the
//         PreparedForest, laid out as the trees are grown: see forest_dict;
//         with last_use, data is freed once the trees are grown and refuses
//         later calls: see TrainingData)
//         (criterion "squared_error" for targets, the others for codes)
//   PreparedForest(forest dict, n_classes, n_threads=1)
//                                                 checked and laid out once
//         (n_classes 0 for a regression forest)
//   predict(forest dict or PreparedForest, X, n_classes, n_threads, proba)
//       -> codes or vote fractions
//   predict_mean(forest dict or PreparedForest, X, n_threads) -> a regression
//         forest's predictions
//   apply(forest dict, X, n_classes, n_threads) -> leaf per sample and tree
//   decision_path(forest dict, X, n_classes, n_threads) -> (row starts, nodes)
//         (n_classes 0 for a regression forest)
//   shap_values(forest dict, X, n_outputs, n_threads) -> Shapley values
//
// Library failures arrive as ValueError with the library's own message;
// element types as TypeError, shapes as ValueError.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "array_checks.h"
#include "forest_view.h"
#include "released_run.h"
#include "shap_values.h"
#include "training_data.h"
#include "velmot/dataset/native_array_dataset.h"
#include "velmot/defs/exception.h"
#include "velmot/learn/forest_arrays_layout.h"
#include "velmot/learn/forest_classifier.h"
#include "velmot/learn/forest_regressor.h"
#include "velmot/learn/forest_walk.h"
#include "velmot/learn/seeded_forest.h"

namespace py = pybind11;
using PyVelmot::core::TrainingData;

namespace {

// A numpy array that takes the vector's storage over, without a copy: the
// array owns the vector through a capsule (values is left empty).
template <class T>
py::array_t<T> to_numpy(std::vector<T>& values) {
  auto owned = std::make_unique<std::vector<T>>(std::move(values));
  const py::capsule owner(owned.get(), [](void* vector) { delete static_cast<std::vector<T>*>(vector); });
  const std::vector<T>& vector = *owned.release();
  return py::array_t<T>(static_cast<py::ssize_t>(vector.size()), vector.data(), owner);
}

// A forest checked against n_classes (0: a regression forest) and laid out
// as the predictor walks it: made once, it serves any number of predictions.
struct PreparedForest {
  Velmot::FlatForest trees;
  int64_t num_classes;
};

// Learns with Criterion when the data's labels are L (int codes for the
// classification criteria, double targets for squared error).
template <class L, class Criterion>
Velmot::SeededForestOf<L> learn_with(const TrainingData& data, const Velmot::SeededForestSettings& settings,
                                     Velmot::LearningProgress& progress, const std::function<void()>& after_growth) {
  return data.visit([&](const auto& set) -> Velmot::SeededForestOf<L> {
    if constexpr (std::is_same<typename std::decay_t<decltype(set.data)>::label_type, L>::value) {
      return Velmot::learn_seeded_forest(set, settings, Criterion(), progress, after_growth);
    } else {
      throw py::value_error("criterion 'squared_error' needs float64 targets, the others int32 class codes");
    }
  });
}

// The node arrays and per-tree importances of a forest, its PreparedForest
// as "prepared" if it was laid out, and its out-of-bag estimates if asked:
// for class codes "oob_votes" (n_samples x n_classes), for targets
// "oob_counts" (out-of-bag trees per sample) and "oob_sums" (the sums of
// their predictions, added in tree order).
template <class L>
py::dict forest_dict(Velmot::SeededForestOf<L>& forest, int64_t num_trees, const TrainingData& data, bool out_of_bag) {
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
  result["importances"] = importances.reshape({num_trees, static_cast<int64_t>(data.num_features())});
  if (!forest.laid_out.empty()) {
    const int64_t num_classes = std::is_integral<L>::value ? static_cast<int64_t>(data.num_classes()) : 0;
    result["prepared"] = py::cast(PreparedForest{std::move(forest.laid_out), num_classes});
  }
  if (!out_of_bag) return result;
  py::array_t<int32_t> counts = to_numpy(forest.oob_counts);
  if constexpr (std::is_integral<L>::value) {
    result["oob_votes"] =
        counts.reshape({static_cast<int64_t>(data.num_samples()), static_cast<int64_t>(data.num_classes())});
  } else {
    result["oob_counts"] = counts;
    result["oob_sums"] = to_numpy(forest.oob_sums);
  }
  return result;
}

// Per feature of the prepared set, the upper median its ranking found, NaN
// for a feature without ranks (bytes, a column that held NaN, or a set
// whose ranks did not fit in memory).
py::array_t<double> ranked_upper_medians(const TrainingData& data) {
  py::array_t<double> medians(static_cast<py::ssize_t>(data.num_features()));
  double* out = medians.mutable_data();
  data.visit([&](const auto& set) {
    for (size_t f = 0; f < data.num_features(); ++f) {
      out[f] = set.ranks.has_ranks(f) ? static_cast<double>(set.ranks.upper_median(f))
                                      : std::numeric_limits<double>::quiet_NaN();
    }
  });
  return medians;
}

// The growth limits count in-bag samples (learn/growth_limits.h); their
// defaults are the library's growth rule.
py::dict learn(TrainingData& data, const std::string& criterion, uint64_t seed, int64_t first_tree, int64_t last_tree,
               double sample_prop, int features_per_split, int max_depth, int num_threads,
               const py::object& on_progress, int min_leaf_size, int64_t min_samples_leaf, double min_impurity_decrease,
               bool out_of_bag, const py::object& sample_weight, bool prepare, bool last_use) {
  Velmot::SeededForestSettings settings;
  settings.lay_out = prepare;
  settings.seed = seed;
  settings.first_tree = first_tree;
  settings.last_tree = last_tree;
  settings.sample_prop = sample_prop;
  settings.fte_per_split = features_per_split;
  settings.max_depth = max_depth;
  if (min_samples_leaf < 0) throw py::value_error("min_samples_leaf must be 0 (the library's rule) or more");
  if (!(min_impurity_decrease >= 0.0)) throw py::value_error("min_impurity_decrease must be 0 or more");
  settings.limits.min_leaf_size = min_leaf_size;
  settings.limits.leaf.min_side = min_samples_leaf;
  settings.limits.min_impurity_decrease = min_impurity_decrease;
  settings.out_of_bag = out_of_bag;
  if (!sample_weight.is_none()) {
    const py::array weights = py::array::ensure(sample_weight);
    if (!weights) throw py::type_error("sample_weight must be a numpy array or None");
    const double* values = PyVelmot::core::vector_of<double>(weights, "sample_weight");
    settings.sample_weights.assign(values, values + weights.shape(0));
  }
  // A fit this small runs on one thread: starting a team and waiting at its
  // closing barrier would cost more than the trees, and far more where
  // another process holds a core (100 trees on breast cancer's 569 samples,
  // a core busy: 32 ms on two threads against 29 ms on one). The forest does
  // not depend on it.
  constexpr double one_thread_draws = 65536.0;
  const double draws =
      sample_prop * static_cast<double>(data.num_samples()) * static_cast<double>(last_tree - first_tree);
  settings.num_threads = draws < one_thread_draws ? 1 : num_threads;
  Velmot::SeededForest (*learner)(const TrainingData&, const Velmot::SeededForestSettings&, Velmot::LearningProgress&,
                                  const std::function<void()>&) = nullptr;
  if (criterion == "gini") learner = learn_with<int, Velmot::TwoSplitGiniImpurity>;
  if (criterion == "infogain") learner = learn_with<int, Velmot::TwoSplitInfoGain>;
  if (criterion == "gainratio") learner = learn_with<int, Velmot::TwoSplitGainRatio>;
  const bool regression = criterion == "squared_error";
  if (!regression && learner == nullptr) {
    throw py::value_error("criterion must be 'gini', 'infogain', 'gainratio' or 'squared_error'");
  }
  const PyVelmot::core::LearningCall call(data, last_use);
  std::function<void()> after_growth;
  if (last_use) after_growth = [&data]() { data.release_if_alone(); };
  Velmot::LearningProgress progress;
  if (regression) {
    Velmot::SeededRegressionForest forest;
    PyVelmot::core::run_released(
        [&]() { forest = learn_with<double, Velmot::SquaredError>(data, settings, progress, after_growth); }, progress,
        on_progress);
    return forest_dict(forest, last_tree - first_tree, data, out_of_bag);
  }
  Velmot::SeededForest forest;
  PyVelmot::core::run_released([&]() { forest = learner(data, settings, progress, after_growth); }, progress,
                               on_progress);
  return forest_dict(forest, last_tree - first_tree, data, out_of_bag);
}

// A forest dict's node arrays, read in place and checked for walks.
PyVelmot::core::HeldForest checked_forest(const py::dict& forest, int64_t num_classes) {
  PyVelmot::core::HeldForest held = PyVelmot::core::forest_arrays_view(forest);
  if (num_classes < 1 || num_classes > 2147483645) throw py::value_error("n_classes must be in [1, 2147483645]");
  Velmot::check_forest_arrays(held.view, static_cast<size_t>(num_classes));
  return held;
}

// Calls body(value_of) with value_of(i, f) reading sample i's feature f of
// X (n_samples, n_features, any strides) as a double, after checking that
// the forest's splits test features X has.
template <class Value, class Body>
void with_sample_values(const py::array& samples, const Velmot::NodeArraysView<Value>& view, Body&& body) {
  PyVelmot::core::require_ndim(samples, "X", 2);
  Velmot::check_walk_features(view, static_cast<size_t>(samples.shape(1)));
  const auto* base = static_cast<const unsigned char*>(samples.data());
  const size_t sample_stride = static_cast<size_t>(samples.strides(0));
  const size_t feature_stride = static_cast<size_t>(samples.strides(1));
  PyVelmot::core::with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    body([=](size_t i, int32_t f) {
      return static_cast<double>(
          *reinterpret_cast<const F*>(base + i * sample_stride + static_cast<size_t>(f) * feature_stride));
    });
  });
}

// Calls walk(view) with the checked node arrays of a classification forest
// (n_classes >= 1) or of a regression forest (n_classes 0).
template <class Walk>
void with_walkable_forest(const py::dict& forest, int64_t num_classes, int num_threads, Walk&& walk) {
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  if (num_classes == 0) {
    const PyVelmot::core::HeldNodeArrays<double> held = PyVelmot::core::forest_arrays_view<double>(forest);
    Velmot::check_forest_arrays(held.view, 0);
    walk(held.view);
  } else {
    const PyVelmot::core::HeldForest held = checked_forest(forest, num_classes);
    walk(held.view);
  }
}

// The leaf each sample of X reaches in each tree: int32, (n_samples, n_trees).
py::array_t<int32_t> apply(const py::dict& forest, const py::array& samples, int64_t num_classes, int num_threads) {
  py::array_t<int32_t> leaves;
  with_walkable_forest(forest, num_classes, num_threads, [&](const auto& view) {
    with_sample_values(samples, view, [&](const auto& value_of) {
      leaves = py::array_t<int32_t>({samples.shape(0), static_cast<py::ssize_t>(view.num_trees)});
      int32_t* out = leaves.mutable_data();
      py::gil_scoped_release released;
      Velmot::find_leaves(view, static_cast<size_t>(samples.shape(0)), value_of, num_threads, out);
    });
  });
  return leaves;
}

// Every sample's nodes, as (row starts, forest-wide node numbers) of a
// sparse indicator matrix.
py::tuple decision_path(const py::dict& forest, const py::array& samples, int64_t num_classes, int num_threads) {
  Velmot::DecisionPaths paths;
  with_walkable_forest(forest, num_classes, num_threads, [&](const auto& view) {
    with_sample_values(samples, view, [&](const auto& value_of) {
      py::gil_scoped_release released;
      paths = Velmot::find_decision_paths(view, static_cast<size_t>(samples.shape(0)), value_of, num_threads);
    });
  });
  return py::make_tuple(to_numpy(paths.rows), to_numpy(paths.nodes));
}

// The PreparedForest of a forest of node arrays, its trees shared among
// n_threads (checking and laying out W5's 100 trees of 126,000 nodes takes
// about as long as predicting 25,000 instances).
PreparedForest prepare_forest(const py::dict& forest, int64_t num_classes, int num_threads) {
  PreparedForest prepared{Velmot::FlatForest(), num_classes};
  auto lay_out = [&](const auto& view, size_t classes) {
    if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
    py::gil_scoped_release released;
    prepared.trees = Velmot::checked_flat_forest_of(view, classes, num_threads);
  };
  if (num_classes == 0) {
    lay_out(PyVelmot::core::forest_arrays_view<double>(forest).view, 0);
  } else {
    const PyVelmot::core::HeldForest held = PyVelmot::core::forest_arrays_view(forest);
    if (num_classes < 1 || num_classes > 2147483645) throw py::value_error("n_classes must be in [1, 2147483645]");
    lay_out(held.view, static_cast<size_t>(num_classes));
  }
  return prepared;
}

// The PreparedForest passed as `forest`, or one made from its dict of node
// arrays (held by `made`).
const PreparedForest& prepared_forest(const py::object& forest, int64_t num_classes, int num_threads,
                                      std::unique_ptr<PreparedForest>& made) {
  if (py::isinstance<PreparedForest>(forest)) {
    const PreparedForest& prepared = forest.cast<const PreparedForest&>();
    if (prepared.num_classes != num_classes) throw py::value_error("n_classes differs from the prepared forest's");
    return prepared;
  }
  if (!py::isinstance<py::dict>(forest))
    throw py::type_error("forest must be a dict of node arrays or a PreparedForest");
  made = std::make_unique<PreparedForest>(prepare_forest(forest.cast<py::dict>(), num_classes, num_threads));
  return *made;
}

// Labels (proba false: int32 codes, ties to the smallest) or vote
// fractions (proba true: float64, n_samples x n_classes) for X (n_samples,
// n_features) of a forest of node arrays or a PreparedForest, through the
// forest predictor.
py::array predict(const py::object& forest, const py::array& samples, int64_t num_classes, int num_threads,
                  bool proba) {
  if (num_classes < 1) throw py::value_error("n_classes must be in [1, 2147483645]");
  std::unique_ptr<PreparedForest> made;
  const PreparedForest* prepared = &prepared_forest(forest, num_classes, num_threads, made);
  PyVelmot::core::require_ndim(samples, "X", 2);
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  const py::ssize_t num_samples = samples.shape(0);
  if (proba && num_samples * num_classes * py::ssize_t(sizeof(double)) > 2147483647) {
    throw py::value_error("predict_proba takes at most 2^31 bytes of probabilities per call; pass fewer samples");
  }
  py::array out = proba ? py::array(py::array_t<double>({num_samples, static_cast<py::ssize_t>(num_classes)}))
                        : py::array(py::array_t<int32_t>(num_samples));
  void* out_data = out.mutable_data();
  PyVelmot::core::with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    const int placeholder_label = 0;
    const Velmot::DisNativeArrayDataSet<F, int> data(
        static_cast<const unsigned char*>(samples.data()), &placeholder_label, static_cast<size_t>(num_samples),
        static_cast<size_t>(samples.shape(1)), static_cast<size_t>(num_classes),
        static_cast<size_t>(samples.strides(0)), static_cast<size_t>(samples.strides(1)), 0);
    py::gil_scoped_release released;
    omp_set_num_threads(num_threads);
    Velmot::ForestPredictor<int> predictor(static_cast<int>(num_classes));
    predictor.use_forest(prepared->trees);
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
// values) or its PreparedForest (n_classes 0) for X (n_samples,
// n_features): each the mean of its trees' leaves.
py::array_t<double> predict_mean(const py::object& forest, const py::array& samples, int num_threads) {
  std::unique_ptr<PreparedForest> made;
  const PreparedForest& prepared = prepared_forest(forest, 0, num_threads, made);
  PyVelmot::core::require_ndim(samples, "X", 2);
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  py::array_t<double> out(samples.shape(0));
  double* means = out.mutable_data();
  PyVelmot::core::with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    const int placeholder_label = 0;
    const Velmot::DisNativeArrayDataSet<F, int> data(
        static_cast<const unsigned char*>(samples.data()), &placeholder_label, static_cast<size_t>(samples.shape(0)),
        static_cast<size_t>(samples.shape(1)), 0, static_cast<size_t>(samples.strides(0)),
        static_cast<size_t>(samples.strides(1)), 0);
    py::gil_scoped_release released;
    omp_set_num_threads(num_threads);
    Velmot::predict_means(prepared.trees, data, means);
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
      .def(py::init<const py::array&, const py::array&, int64_t, int, bool>(), py::arg("X"), py::arg("y"),
           py::arg("n_classes"), py::arg("n_threads"), py::arg("in_place") = true)
      .def_property_readonly("n_features", &TrainingData::num_features)
      .def_property_readonly("n_samples", &TrainingData::num_samples)
      .def_property_readonly("n_classes", &TrainingData::num_classes)
      .def_property_readonly("upper_medians", &ranked_upper_medians);
  m.def("learn", &learn, py::arg("data"), py::kw_only(), py::arg("criterion"), py::arg("seed"), py::arg("first_tree"),
        py::arg("last_tree"), py::arg("sample_prop"), py::arg("features_per_split"), py::arg("max_depth"),
        py::arg("n_threads"), py::arg("on_progress") = py::none(),
        py::arg("min_leaf_size") = Velmot::GrowthLimits().min_leaf_size,
        py::arg("min_samples_leaf") = Velmot::GrowthLimits().leaf.min_side,
        py::arg("min_impurity_decrease") = Velmot::GrowthLimits().min_impurity_decrease, py::arg("out_of_bag") = false,
        py::arg("sample_weight") = py::none(), py::arg("prepare") = false, py::arg("last_use") = false,
        "Trees [first_tree, last_tree) of the forest of `seed`: a dict of node arrays and per-tree importances.");
  py::class_<PreparedForest>(m, "PreparedForest")
      .def(py::init(&prepare_forest), py::arg("forest"), py::arg("n_classes"), py::arg("n_threads") = 1)
      .def_property_readonly("n_classes", [](const PreparedForest& forest) { return forest.num_classes; });
  m.def("predict", &predict, py::arg("forest"), py::arg("X"), py::arg("n_classes"), py::arg("n_threads"),
        py::arg("proba"),
        "Class codes (or, with proba, vote fractions) of a forest of node arrays for X (n_samples, n_features).");
  m.def("predict_mean", &predict_mean, py::arg("forest"), py::arg("X"), py::arg("n_threads"),
        "The mean leaf value of a regression forest (node arrays or a PreparedForest with n_classes 0) for each "
        "sample of X (n_samples, n_features).");
  m.def("apply", &apply, py::arg("forest"), py::arg("X"), py::arg("n_classes"), py::arg("n_threads"),
        "The leaf (node number within its tree) each sample of X reaches in each tree: (n_samples, n_trees).");
  m.def("decision_path", &decision_path, py::arg("forest"), py::arg("X"), py::arg("n_classes"), py::arg("n_threads"),
        "(row starts, forest-wide node numbers) of the nodes each sample of X passes, tree after tree.");
  PyVelmot::core::bind_shap_values(m);
}
