#ifndef VELMOT_DEFS_CONTIGUOUS_ARRAY_2D_H
#define VELMOT_DEFS_CONTIGUOUS_ARRAY_2D_H

// Non-owning typed views of memory laid out with arbitrary byte strides (the
// data block of a numpy array). Sizes and strides are 32-bit: the views serve
// arrays far below 2^31 bytes. No bounds checks: callers check shapes.

#include <cstddef>
#include <cstdint>

namespace Velmot {

template <class T>
class Array1D {
public:
  Array1D() : data(nullptr), n(0), stride(0) {}
  Array1D(T* data, int n) : data(reinterpret_cast<unsigned char*>(data)), n(n), stride(sizeof(T)) {}
  Array1D(T* data, int n, int stride) : data(reinterpret_cast<unsigned char*>(data)), n(n), stride(stride) {}
  Array1D(unsigned char* bytes, int n, int stride) : data(bytes), n(n), stride(stride) {}

  size_t size() const { return static_cast<size_t>(n); }

  T& operator[](size_t k) { return *address(k); }
  const T& operator[](size_t k) const { return *address(k); }

private:
  T* address(size_t k) const {
    return reinterpret_cast<T*>(data + static_cast<int64_t>(k) * static_cast<int64_t>(stride));
  }

  unsigned char* data;
  const int n;
  const int stride;
};

template <class T>
class Array2D {
public:
  Array2D() : data(nullptr), nrows(0), ncols(0), stride_i(0), stride_j(0) {}
  // Dense row-major block.
  Array2D(T* data, int nrows, int ncols)
      : data(reinterpret_cast<unsigned char*>(data)),
        nrows(nrows),
        ncols(ncols),
        stride_i(ncols * static_cast<int>(sizeof(T))),
        stride_j(sizeof(T)) {}
  Array2D(T* data, int nrows, int ncols, int stride_i, int stride_j)
      : data(reinterpret_cast<unsigned char*>(data)),
        nrows(nrows),
        ncols(ncols),
        stride_i(stride_i),
        stride_j(stride_j) {}

  T& operator()(int i, int j) { return *address(i, j); }
  const T& operator()(int i, int j) const { return *address(i, j); }

  int num_rows() const { return nrows; }
  int num_cols() const { return ncols; }
  int row_stride() const { return stride_i; }
  int col_stride() const { return stride_j; }

  Array1D<T> get_row(size_t i) const {
    return Array1D<T>(data + static_cast<int64_t>(i) * static_cast<int64_t>(stride_i), ncols, stride_j);
  }
  Array1D<T> get_col(size_t j) const {
    return Array1D<T>(data + static_cast<int64_t>(j) * static_cast<int64_t>(stride_j), nrows, stride_i);
  }

private:
  T* address(int i, int j) const {
    return reinterpret_cast<T*>(data + static_cast<int64_t>(i) * stride_i + static_cast<int64_t>(j) * stride_j);
  }

  unsigned char* data;
  const int nrows;
  const int ncols;
  const int stride_i;
  const int stride_j;
};

}  // namespace Velmot

#endif
