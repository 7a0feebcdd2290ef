#ifndef PYVELMOT_PREPARED_FEATURES_H
#define PYVELMOT_PREPARED_FEATURES_H

// Features as a learning call prepares them: copied into the library's
// columns, missing values imputed, ranked. On large data that costs about
// as much as learning one or two trees, and the velmot package learns a
// forest as a series of calls on one matrix, so a matrix may carry its
// preparation from one call to the next.
//
// A matrix opts in by being read-only and having an attribute named
// "_velmot_prepared" (only an ndarray subclass can have one): a call stores
// its preparation there, in a capsule, and a later call on the same memory,
// shape, strides and element types reuses it instead of preparing again.
// The holder of such a matrix promises that its values do not change; the
// preparation is freed with the matrix or when the attribute is replaced.
// Any other matrix is prepared afresh by every call.

#include "numpy_api.h"

#include <memory>

#include "py_ref.h"
#include "velmot/dataset/dataset.h"
#include "velmot/learn/learn_forest.h"

namespace PyVelmot {

// Where a matrix's values lie: equal layouts of a read-only matrix hold the
// same values.
struct MatrixLayout {
  const void* data = nullptr;
  npy_intp dims[2] = {0, 0};
  npy_intp strides[2] = {0, 0};

  explicit MatrixLayout(PyArrayObject* x);
  bool operator==(const MatrixLayout& other) const;
};

struct Preparation {
  explicit Preparation(const MatrixLayout& layout) : layout(layout) {}
  virtual ~Preparation() = default;
  const MatrixLayout layout;
};

template <class F, class L>
struct PreparedFeatures : Preparation {
  using Preparation::Preparation;
  // Features copied and imputed; the labels are replaced by each call's.
  Velmot::MemoryDataSet<F, L> dataset;
  Velmot::ReusableRanks<F> ranks;
};

// What a matrix carries: whether it opted in, and its stored preparation
// (with a reference that keeps it alive during the call), if any.
struct StoredPreparation {
  bool opted_in = false;
  PyRef capsule;
  Preparation* preparation = nullptr;
};

StoredPreparation find_preparation(PyObject* matrix);

// Stores `preparation` on an opted-in matrix, replacing what it held. Only a
// speed-up: if that fails, the preparation is dropped and no error is left.
void store_preparation(PyObject* matrix, std::unique_ptr<Preparation> preparation);

// The stored preparation of matrix x for these types and x's layout, or null.
template <class F, class L>
PreparedFeatures<F, L>* reusable_preparation(const StoredPreparation& stored, PyArrayObject* x) {
  auto* prepared = dynamic_cast<PreparedFeatures<F, L>*>(stored.preparation);
  return prepared != nullptr && prepared->layout == MatrixLayout(x) ? prepared : nullptr;
}

}  // namespace PyVelmot

#endif
