#ifndef PYVELMOT_CORE_ARRAY_CHECKS_H
#define PYVELMOT_CORE_ARRAY_CHECKS_H

// Checks of the numpy arrays handed to velmot._core: a wrong element type
// is a TypeError, a wrong shape a ValueError, each naming the argument and
// what it must be. Nothing is converted silently.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

namespace PyVelmot::core {

namespace py = pybind11;

template <class T>
const char* type_name();
template <>
inline const char* type_name<int32_t>() {
  return "int32";
}
template <>
inline const char* type_name<int64_t>() {
  return "int64";
}
template <>
inline const char* type_name<double>() {
  return "float64";
}
template <>
inline const char* type_name<float>() {
  return "float32";
}
template <>
inline const char* type_name<unsigned char>() {
  return "uint8";
}

inline void require_ndim(const py::array& array, const char* name, py::ssize_t ndim) {
  if (array.ndim() != ndim) {
    throw py::value_error(std::string(name) + " must have " + std::to_string(ndim) + " dimension(s), not " +
                          std::to_string(array.ndim()));
  }
}

// A C-contiguous vector of T, read in place.
template <class T>
const T* vector_of(const py::array& array, const char* name) {
  if (!py::isinstance<py::array_t<T>>(array)) {
    throw py::type_error(std::string(name) + " must be a " + type_name<T>() + " array, not " +
                         std::string(py::str(array.dtype())));
  }
  require_ndim(array, name, 1);
  if (!(array.flags() & py::array::c_style)) throw py::value_error(std::string(name) + " must be contiguous");
  return static_cast<const T*>(array.data());
}

// Calls body(F()) for the feature type of a matrix: int32, float64,
// float32 or uint8.
template <class Body>
decltype(auto) with_feature_type(const py::array& matrix, const char* name, Body&& body) {
  if (py::isinstance<py::array_t<int32_t>>(matrix)) return body(int32_t());
  if (py::isinstance<py::array_t<double>>(matrix)) return body(double());
  if (py::isinstance<py::array_t<float>>(matrix)) return body(float());
  if (py::isinstance<py::array_t<unsigned char>>(matrix)) return body((unsigned char)0);
  throw py::type_error(std::string(name) + " must hold int32, float64, float32 or uint8 values, not " +
                       std::string(py::str(matrix.dtype())));
}

}  // namespace PyVelmot::core

#endif
