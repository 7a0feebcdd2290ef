#ifndef PYVELMOT_ARRAY_VIEW_H
#define PYVELMOT_ARRAY_VIEW_H

// Typed strided views over numpy arrays. The element type is the caller's
// choice (the function's letters select it); it is not checked here.

#include "numpy_api.h"

#include <string>

#include "boundary.h"
#include "velmot/defs/contiguous_array_2d.h"

namespace PyVelmot {

// An Array2D<T> over a numpy array of one or two dimensions (one dimension
// is viewed as a single row). Only numpy's own array type is accepted,
// subclasses included in the refusal. `name` appears in the messages.
template <class T>
Velmot::Array2D<T> get_array_object(const std::string& name, PyObject* obj) {
  if (Py_TYPE(obj) != &PyArray_Type) throw ModuleError(name + ": must be a dense, non-record Python array.");
  PyArrayObject* array = reinterpret_cast<PyArrayObject*>(obj);
  T* data = reinterpret_cast<T*>(PyArray_DATA(array));
  switch (PyArray_NDIM(array)) {
    case 2:
      return Velmot::Array2D<T>(data, static_cast<int>(PyArray_DIM(array, 0)), static_cast<int>(PyArray_DIM(array, 1)),
                                static_cast<int>(PyArray_STRIDE(array, 0)), static_cast<int>(PyArray_STRIDE(array, 1)));
    case 1:
      return Velmot::Array2D<T>(data, 1, static_cast<int>(PyArray_DIM(array, 0)), 1,
                                static_cast<int>(PyArray_STRIDE(array, 0)));
    default:
      throw ModuleError(name + ": only 1D or 2D arrays supported.");
  }
}

}  // namespace PyVelmot

#endif
