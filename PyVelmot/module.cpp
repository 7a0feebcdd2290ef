// Module initialisation and the method table of PyVelmot_wrap.

#define PYVELMOT_DEFINES_NUMPY_API
#include "numpy_api.h"

#include "boundary.h"
#include "entry_points.h"
#include "method_list.h"

namespace {

// numpy's 1.x import sequence, with its checks and messages; the function
// table arrives as a capsule.
int import_numpy_c_api() {
  PyObject* numpy = PyImport_ImportModule("numpy.core.multiarray");
  if (numpy == nullptr) return -1;
  PyObject* c_api = PyObject_GetAttrString(numpy, "_ARRAY_API");
  Py_DECREF(numpy);
  if (c_api == nullptr) {
    PyErr_SetString(PyExc_AttributeError, "_ARRAY_API not found");
    return -1;
  }
  if (!PyCapsule_CheckExact(c_api)) {
    PyErr_SetString(PyExc_RuntimeError, "_ARRAY_API is not PyCapsule object");
    Py_DECREF(c_api);
    return -1;
  }
  PyArray_API = static_cast<void**>(PyCapsule_GetPointer(c_api, nullptr));
  Py_DECREF(c_api);
  if (PyArray_API == nullptr) {
    PyErr_SetString(PyExc_RuntimeError, "_ARRAY_API is NULL pointer");
    return -1;
  }
  if (PyArray_GetNDArrayCVersion() != NPY_ABI_VERSION) {
    PyErr_Format(PyExc_RuntimeError, "module compiled against ABI version %x but this version of numpy is %x",
                 static_cast<int>(NPY_ABI_VERSION), static_cast<int>(PyArray_GetNDArrayCVersion()));
    return -1;
  }
  constexpr int minimum_feature_version = 7;
  if (static_cast<int>(PyArray_GetNDArrayCFeatureVersion()) < minimum_feature_version) {
    PyErr_Format(PyExc_RuntimeError, "module compiled against API version %x but this version of numpy is %x",
                 minimum_feature_version, static_cast<int>(PyArray_GetNDArrayCFeatureVersion()));
    return -1;
  }
  const int endianness = PyArray_GetEndianness();
  if (endianness == NPY_CPU_UNKNOWN_ENDIAN) {
    PyErr_SetString(PyExc_RuntimeError, "FATAL: module compiled as unknown endian");
    return -1;
  }
  if (endianness != NPY_CPU_LITTLE) {
    PyErr_SetString(PyExc_RuntimeError,
                    "FATAL: module compiled as little endian, but detected different endianness at runtime");
    return -1;
  }
  return 0;
}

// Positional tuples only (METH_VARARGS): keyword arguments are refused by
// the interpreter. No doc strings; the stub PyVelmot_wrap.pyi documents them.
#define PYVELMOT_METHOD(name, function) {name, reinterpret_cast<PyCFunction>(function), METH_VARARGS, nullptr},
#define PYVELMOT_LEARNER_METHOD(suffix, F, L, C) PYVELMOT_METHOD("learn_" #suffix, (PyVelmot::learn_wrap<F, L, C>))
#define PYVELMOT_TESTER_METHOD(suffix, F, L) PYVELMOT_METHOD("test_" #suffix, (PyVelmot::test_wrap<F, L>))
#define PYVELMOT_PROB_METHOD(suffix, F, L, T) PYVELMOT_METHOD("prob_" #suffix, (PyVelmot::prob_wrap<F, L, T>))

PyMethodDef methods[] = {
    PYVELMOT_LEARNERS(PYVELMOT_LEARNER_METHOD) PYVELMOT_TESTERS(PYVELMOT_TESTER_METHOD)
        PYVELMOT_PROBABILITY_FUNCTIONS(PYVELMOT_PROB_METHOD) PYVELMOT_METHOD("init_pool", PyVelmot::init_pool_wrap)
            PYVELMOT_METHOD("set_seed", PyVelmot::set_seed_wrap){nullptr, nullptr, 0, nullptr},
};

#undef PYVELMOT_PROB_METHOD
#undef PYVELMOT_TESTER_METHOD
#undef PYVELMOT_LEARNER_METHOD
#undef PYVELMOT_METHOD

PyModuleDef module_definition = {
    PyModuleDef_HEAD_INIT, "PyVelmot_wrap", nullptr, -1, methods, nullptr, nullptr, nullptr, nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_PyVelmot_wrap() {
  PyObject* module = PyModule_Create(&module_definition);
  if (module == nullptr) return nullptr;
  if (import_numpy_c_api() < 0) {
    PyErr_Print();
    PyErr_SetString(PyExc_ImportError, "numpy.core.multiarray failed to import");
    Py_DECREF(module);
    return nullptr;
  }
  PyVelmot::prepare_errors();
  return module;
}
