#ifndef PYVELMOT_NUMPY_API_H
#define PYVELMOT_NUMPY_API_H

// Every unit of the module shares one numpy function table; only the unit
// that imports it (module.cpp) defines it.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#define PY_ARRAY_UNIQUE_SYMBOL PyVelmot_ARRAY_API
#ifndef PYVELMOT_DEFINES_NUMPY_API
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>

#endif
