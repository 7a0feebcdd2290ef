#ifndef PYVELMOT_PY_REF_H
#define PYVELMOT_PY_REF_H

// An owned Python reference, dropped when the holder goes out of scope, so
// that an exception between creating an object and handing it over cannot
// leak it.

#include "numpy_api.h"

#include <memory>

namespace PyVelmot {

struct PyRefRelease {
  void operator()(PyObject* obj) const { Py_XDECREF(obj); }
};

typedef std::unique_ptr<PyObject, PyRefRelease> PyRef;

}  // namespace PyVelmot

#endif
