#include "prepared_features.h"

#include <utility>

namespace PyVelmot {

namespace {

const char* const attribute_name = "_velmot_prepared";
const char* const capsule_name = "PyVelmot_wrap.prepared_features";

void free_preparation(PyObject* capsule) {
  delete static_cast<Preparation*>(PyCapsule_GetPointer(capsule, capsule_name));
}

}  // namespace

MatrixLayout::MatrixLayout(PyArrayObject* x) : data(PyArray_DATA(x)) {
  for (int k = 0; k < 2; ++k) {
    dims[k] = PyArray_DIM(x, k);
    strides[k] = PyArray_STRIDE(x, k);
  }
}

bool MatrixLayout::operator==(const MatrixLayout& other) const {
  return data == other.data && dims[0] == other.dims[0] && dims[1] == other.dims[1] && strides[0] == other.strides[0] &&
         strides[1] == other.strides[1];
}

StoredPreparation find_preparation(PyObject* matrix) {
  StoredPreparation stored;
  if (PyArray_ISWRITEABLE(reinterpret_cast<PyArrayObject*>(matrix))) return stored;
  PyRef value(PyObject_GetAttrString(matrix, attribute_name));
  if (!value) {
    // No attribute (a plain array), or one that failed to read: no opt-in.
    PyErr_Clear();
    return stored;
  }
  stored.opted_in = true;
  if (PyCapsule_IsValid(value.get(), capsule_name)) {
    stored.preparation = static_cast<Preparation*>(PyCapsule_GetPointer(value.get(), capsule_name));
    stored.capsule = std::move(value);
  }
  return stored;
}

void store_preparation(PyObject* matrix, std::unique_ptr<Preparation> preparation) {
  PyRef capsule(PyCapsule_New(preparation.get(), capsule_name, free_preparation));
  if (!capsule) {
    PyErr_Clear();
    return;
  }
  // The capsule owns it now.
  static_cast<void>(preparation.release());
  if (PyObject_SetAttrString(matrix, attribute_name, capsule.get()) != 0) PyErr_Clear();
}

}  // namespace PyVelmot
