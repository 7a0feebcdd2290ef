#include "shap_values.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <cstring>

#include "array_checks.h"
#include "forest_view.h"
#include "velmot/learn/tree_shap.h"

namespace PyVelmot::core {

namespace {

// forest: the node arrays with `value` the output column each leaf adds
// to, `count` every node's cover and `leaf_output` each leaf's output.
// Returns float64 (n_samples, n_features, n_outputs): the sums over the
// trees (the caller divides by their number for a mean).
py::array shap_values(const py::dict& forest, const py::array& samples, int64_t num_outputs, int num_threads) {
  const HeldForest held = forest_arrays_view(forest);
  const py::array count = forest_entry(forest, "count"), leaf_output = forest_entry(forest, "leaf_output");
  const Velmot::ShapForestView view{held.view, vector_of<int64_t>(count, "count"),
                                    vector_of<double>(leaf_output, "leaf_output")};
  if (count.shape(0) != static_cast<py::ssize_t>(view.nodes.num_nodes) ||
      leaf_output.shape(0) != static_cast<py::ssize_t>(view.nodes.num_nodes)) {
    throw py::value_error("the forest's node arrays differ in length");
  }
  require_ndim(samples, "X", 2);
  if (num_outputs < 1 || num_outputs > 2147483645) throw py::value_error("n_outputs must be in [1, 2147483645]");
  if (num_threads < 1) throw py::value_error("n_threads must be at least 1");
  const py::ssize_t num_samples = samples.shape(0), num_features = samples.shape(1);
  Velmot::check_shap_forest(view, static_cast<size_t>(num_features), static_cast<size_t>(num_outputs));
  py::array_t<double> out({num_samples, num_features, static_cast<py::ssize_t>(num_outputs)});
  double* phi = out.mutable_data();
  std::memset(phi, 0, static_cast<size_t>(out.size()) * sizeof(double));
  with_feature_type(samples, "X", [&](auto type) {
    typedef decltype(type) F;
    const auto* base = static_cast<const unsigned char*>(samples.data());
    const py::ssize_t row_stride = samples.strides(0), column_stride = samples.strides(1);
    auto read_instance = [&](int64_t i, double* x) {
      const unsigned char* row = base + i * row_stride;
      for (py::ssize_t f = 0; f < num_features; ++f) {
        F value;
        std::memcpy(&value, row + f * column_stride, sizeof(F));
        x[f] = static_cast<double>(value);
      }
    };
    py::gil_scoped_release released;
    Velmot::forest_shap_values(view, num_samples, static_cast<size_t>(num_features), static_cast<size_t>(num_outputs),
                               phi, num_threads, read_instance);
  });
  return out;
}

}  // namespace

void bind_shap_values(py::module_& m) {
  m.def("shap_values", &shap_values, py::arg("forest"), py::arg("X"), py::arg("n_outputs"), py::arg("n_threads"),
        "Shapley values (n_samples, n_features, n_outputs) of a forest of node arrays for X, summed over the trees.");
}

}  // namespace PyVelmot::core
