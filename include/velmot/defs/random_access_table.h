#ifndef VELMOT_DEFS_RANDOM_ACCESS_TABLE_H
#define VELMOT_DEFS_RANDOM_ACCESS_TABLE_H

// RandomAccessTable: a fixed-size, uninitialised array for tables that are
// read at scattered positions all over (a node gathers ranks from anywhere
// in a column). From 2 MiB up it is aligned to 2 MiB and, where the system
// has them, offered to the kernel as transparent huge pages: with 4 KiB
// pages most such reads also miss the TLB. Contents and results are the
// same with or without them.

#include <cstddef>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Velmot {

template <class T>
class RandomAccessTable {
  static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value,
                "the table holds plain values, left uninitialised");

public:
  RandomAccessTable() = default;
  explicit RandomAccessTable(size_t count) {
    if (count == 0) return;
    if (count > (std::numeric_limits<size_t>::max() - huge_page) / sizeof(T)) throw std::bad_alloc();
    size_t bytes = count * sizeof(T);
    if (bytes >= huge_page) {
      alignment = huge_page;
      // Whole huge pages, so the last one is not left to small pages.
      bytes = (bytes + huge_page - 1) / huge_page * huge_page;
    }
    values = static_cast<T*>(::operator new(bytes, std::align_val_t(alignment)));
    size_ = count;
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    // Only a hint: refused or unsupported, the table works all the same.
    if (alignment == huge_page) (void)madvise(values, bytes, MADV_HUGEPAGE);
#endif
  }
  RandomAccessTable(const RandomAccessTable&) = delete;
  RandomAccessTable& operator=(const RandomAccessTable&) = delete;
  RandomAccessTable(RandomAccessTable&& other) noexcept { swap(other); }
  RandomAccessTable& operator=(RandomAccessTable&& other) noexcept {
    RandomAccessTable(std::move(other)).swap(*this);
    return *this;
  }
  ~RandomAccessTable() {
    if (values != nullptr) ::operator delete(values, std::align_val_t(alignment));
  }

  T* data() { return values; }
  const T* data() const { return values; }
  size_t size() const { return size_; }

  void swap(RandomAccessTable& other) noexcept {
    std::swap(values, other.values);
    std::swap(size_, other.size_);
    std::swap(alignment, other.alignment);
  }

private:
  static constexpr size_t huge_page = size_t(2) << 20;

  T* values = nullptr;
  size_t size_ = 0;
  size_t alignment = alignof(std::max_align_t) > alignof(T) ? alignof(std::max_align_t) : alignof(T);
};

}  // namespace Velmot

#endif
