#ifndef PYVELMOT_CORE_SHAP_VALUES_H
#define PYVELMOT_CORE_SHAP_VALUES_H

// velmot._core.shap_values: the Shapley values of a forest's output
// (learn/tree_shap.h), computed with the GIL released.

#include <pybind11/pybind11.h>

namespace PyVelmot::core {

void bind_shap_values(pybind11::module_& m);

}  // namespace PyVelmot::core

#endif
