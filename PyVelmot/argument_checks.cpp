#include "argument_checks.h"

#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "boundary.h"
#include "velmot/defs/int32_limits.h"

namespace PyVelmot {

void require_ndim(const char* name, PyArrayObject* array, int ndim, const char* layout) {
  if (PyArray_NDIM(array) == ndim) return;
  throw ModuleError(std::string(name) + " must be a " + std::to_string(ndim) + "-dimensional array (" + layout +
                    "), not " + std::to_string(PyArray_NDIM(array)) + "-dimensional");
}

void require_min_ndim(const char* name, PyArrayObject* array, int ndim) {
  if (PyArray_NDIM(array) >= ndim) return;
  throw ModuleError(std::string(name) + " must have at least " + std::to_string(ndim) + " dimension" +
                    (ndim == 1 ? "" : "s") + ", not " + std::to_string(PyArray_NDIM(array)));
}

void require_element_size(const char* name, PyArrayObject* array, size_t size, const char* type_name) {
  const size_t itemsize = static_cast<size_t>(PyArray_ITEMSIZE(array));
  if (itemsize >= size) return;
  throw ModuleError(std::string(name) + " has " + std::to_string(itemsize) + "-byte elements, too small for " +
                    type_name + " (" + std::to_string(size) + " bytes): pass an array of " + type_name);
}

void require_dim_at_least(const char* name, PyArrayObject* array, int dim, npy_intp needed, const char* what) {
  const npy_intp size = PyArray_DIM(array, dim);
  if (size >= needed) return;
  throw ModuleError(std::string(name) + " dimension " + std::to_string(dim) + " is " + std::to_string(size) +
                    ", too small for " + std::to_string(needed) + " " + what);
}

void require_writeable(const char* name, PyArrayObject* array) {
  if (PyArray_ISWRITEABLE(array)) return;
  throw ModuleError(std::string(name) + " must be a writeable array");
}

void require_thread_count(int num_threads, int max_threads) {
  if (num_threads < 1) {
    throw ModuleError("num_threads must be at least 1, not " + std::to_string(num_threads));
  }
  if (max_threads >= 0 && num_threads > max_threads) {
    throw ModuleError("num_threads must be at most " + std::to_string(max_threads) +
                      " (one generator of the pool per thread), not " + std::to_string(num_threads));
  }
}

void require_class_count(int num_classes) {
  // Learning refuses the same bound: past it, label + 2 overflows an int.
  if (num_classes < 0) throw ModuleError("num_classes must be >= 0, not " + std::to_string(num_classes));
  if (num_classes > Velmot::max_num_classes) {
    throw ModuleError("num_classes must be at most " + std::to_string(Velmot::max_num_classes) + ", not " +
                      std::to_string(num_classes));
  }
}

void require_int_strides(const char* name, PyArrayObject* array) {
  for (int d = 0; d < PyArray_NDIM(array); ++d) {
    const npy_intp stride = PyArray_STRIDE(array, d);
    if (PyArray_DIM(array, d) <= 1 || Velmot::fits_in_int32(stride)) continue;
    throw ModuleError(std::string(name) + " stride " + std::to_string(d) + " is " + std::to_string(stride) +
                      " bytes, beyond the 32-bit strides supported: pass a copy (numpy.ascontiguousarray)");
  }
}

void require_affordable_forest(int num_trees) {
  // Fewer bytes than any tree costs at its smallest: one root node, its slot
  // in the forest and in the result list, and a (5, 1) float64 array.
  constexpr unsigned long long min_bytes_per_tree = 128;
  struct sysinfo machine;
  if (num_trees <= 0 || sysinfo(&machine) != 0) return;
  const unsigned long long needed = static_cast<unsigned long long>(num_trees) * min_bytes_per_tree;
  const unsigned long long memory =
      (static_cast<unsigned long long>(machine.totalram) + machine.totalswap) * machine.mem_unit;
  if (needed > memory) {
    throw ModuleError("num_trees=" + std::to_string(num_trees) + " cannot fit in this machine's " +
                      std::to_string(memory >> 20) + " MiB of memory, even as single-leaf trees");
  }
  // A limit on the process's address space or data (ulimit -v, -d) bounds
  // it further, less what the process already uses of it.
  unsigned long long pages[6] = {};
  std::ifstream statm("/proc/self/statm");
  if (!(statm >> pages[0] >> pages[1] >> pages[2] >> pages[3] >> pages[4] >> pages[5])) pages[0] = pages[5] = 0;
  const unsigned long long page = static_cast<unsigned long long>(sysconf(_SC_PAGESIZE));
  const struct {
    int resource;
    unsigned long long used;
    const char* name;
  } limits[] = {{RLIMIT_AS, pages[0] * page, "address space (ulimit -v)"},
                {RLIMIT_DATA, pages[5] * page, "data (ulimit -d)"}};
  for (const auto& limit : limits) {
    struct rlimit value;
    if (getrlimit(limit.resource, &value) != 0 || value.rlim_cur == RLIM_INFINITY) continue;
    const unsigned long long left = value.rlim_cur > limit.used ? value.rlim_cur - limit.used : 0;
    if (needed <= left) continue;
    throw ModuleError("num_trees=" + std::to_string(num_trees) + " cannot fit in the " + std::to_string(left >> 20) +
                      " MiB left of this process's " + limit.name + ", even as single-leaf trees");
  }
}

}  // namespace PyVelmot
