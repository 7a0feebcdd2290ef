#ifndef PYVELMOT_ARGUMENT_CHECKS_H
#define PYVELMOT_ARGUMENT_CHECKS_H

// Checks that keep the entry points inside the caller's memory: the number
// of dimensions they read, element sizes at least as large as the type the
// function's letters read or write, outputs large enough and writeable, and
// thread counts the generator pool can serve. Each throws a ModuleError
// naming the argument and what to fix. Element types are otherwise not
// compared with the letters: a wider element is read through its first
// bytes, as the caller chose.

#include "numpy_api.h"

#include <cstddef>
#include <type_traits>

namespace PyVelmot {

// Dimensions exactly `ndim`.
void require_ndim(const char* name, PyArrayObject* array, int ndim, const char* layout);

// At least `ndim` dimensions (outputs written through their first strides).
void require_min_ndim(const char* name, PyArrayObject* array, int ndim);

// The numpy name of the element type a function's letter reads.
template <class T>
constexpr const char* element_type_name() {
  if constexpr (std::is_same<T, int>::value) return "int32";
  if constexpr (std::is_same<T, double>::value) return "float64";
  if constexpr (std::is_same<T, float>::value) return "float32";
  if constexpr (std::is_same<T, unsigned char>::value) return "uint8";
  return "an unknown type";
}

void require_element_size(const char* name, PyArrayObject* array, size_t size, const char* type_name);

void require_dim_at_least(const char* name, PyArrayObject* array, int dim, npy_intp needed, const char* what);

void require_writeable(const char* name, PyArrayObject* array);

// 1 .. max_threads; max_threads < 0 means no upper bound.
void require_thread_count(int num_threads, int max_threads);

// 0 .. max_classes: the vote tally has num_classes + 2 int slots.
void require_class_count(int num_classes);

// Byte strides the library's 32-bit views can hold (dimensions of length 0
// or 1 are never stepped through, so theirs may be anything).
void require_int_strides(const char* name, PyArrayObject* array);

// Refuses a forest that could not fit in the machine's memory, or within the
// process's limits on memory, even if every tree were a single leaf, before
// anything is sized by it: such a request would otherwise exhaust memory
// part-way through learning.
void require_affordable_forest(int num_trees);

}  // namespace PyVelmot

#endif
