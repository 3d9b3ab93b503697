// Arrays that rays walk at random (hierarchy nodes, triangle records) span
// megabytes; on 4 KB pages nearly every step of a walk misses the address
// cache. Large ones are asked to sit on 2 MB pages instead.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

template <class T>
struct HugePageAllocator {
  using value_type = T;
  static constexpr size_t hugePage = size_t(2) << 20;
  // Below this an array is not worth a whole large page.
  static constexpr size_t threshold = size_t(1) << 20;

  HugePageAllocator() = default;
  template <class U>
  HugePageAllocator(const HugePageAllocator<U>&) {}

  T* allocate(size_t n) {
    if (n > size_t(-1) / sizeof(T)) throw std::bad_array_new_length();
    const size_t bytes = n * sizeof(T);
    if (bytes < threshold) return static_cast<T*>(::operator new(bytes, std::align_val_t(alignof(T))));
    const size_t rounded = (bytes + hugePage - 1) / hugePage * hugePage;
    void* p = std::aligned_alloc(hugePage, rounded);
    if (!p) throw std::bad_alloc();
    // Only advice: where the system keeps to small pages, nothing changes.
    madvise(p, rounded, MADV_HUGEPAGE);
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t n) {
    if (n * sizeof(T) < threshold)
      ::operator delete(p, std::align_val_t(alignof(T)));
    else
      std::free(p);
  }
  template <class U>
  bool operator==(const HugePageAllocator<U>&) const {
    return true;
  }
};

template <class T>
using HugePageArray = std::vector<T, HugePageAllocator<T>>;
