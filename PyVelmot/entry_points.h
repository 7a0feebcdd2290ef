#ifndef PYVELMOT_ENTRY_POINTS_H
#define PYVELMOT_ENTRY_POINTS_H

// The functions of the method table, each taking one positional tuple.

#include "numpy_api.h"

namespace PyVelmot {

PyObject* init_pool_wrap(PyObject* self, PyObject* args);
PyObject* set_seed_wrap(PyObject* self, PyObject* args);

}  // namespace PyVelmot

#endif
