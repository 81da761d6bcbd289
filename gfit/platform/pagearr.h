// The paged array, `coPageArr<T>`.
//
// Elements live in pages of 2^shift default-constructed elements: element i is at position
// i & (page_size - 1) of page i >> shift. Pages never move, so references to elements stay
// valid while the array grows; this is what the arrays of shared handles rely on.
// The default constructor uses pages of 256 elements and a page table of capacity 5, step 10.
#pragma once

#include <cassert>

#include "gfit/platform/dynarr.h"

template <class T>
class coPageArr {
 public:
  coPageArr() : coPageArr(8, 5, 10) {}
  coPageArr(int page_shift, int table_capacity, int table_step)
      : pages_(0), count_(0), page_size_(1 << page_shift), page_shift_(page_shift),
        table_(table_capacity, table_step) {}
  coPageArr(utCopy, coPageArr const& other) : coPageArr(other.page_shift_, 5, 10) { become(utCopy{}, other); }
  coPageArr(coPageArr const& other) : coPageArr(other.page_shift_, 5, 10) { become(utCopy{}, other); }
  coPageArr& operator=(coPageArr const& other) {
    if (this != &other) become(utCopy{}, other);
    return *this;
  }
  ~coPageArr() { clear(1); }

  int count() const { return count_; }
  int size() const { return count_; }
  bool empty() const { return count_ == 0; }
  int pages() const { return pages_; }
  int page_size() const { return page_size_; }
  int page_shift() const { return page_shift_; }

  T& operator[](int i) {
    assert(i >= 0 && i < count_);
    return table_[i >> page_shift_][i & (page_size_ - 1)];
  }
  T const& operator[](int i) const {
    assert(i >= 0 && i < count_);
    return table_[i >> page_shift_][i & (page_size_ - 1)];
  }

  // Stores a copy at index count (copy-assigning into the page's element).
  void append(T const& v) {
    get_block(count_ >> page_shift_);
    table_[count_ >> page_shift_][count_ & (page_size_ - 1)] = v;
    ++count_;
  }

  // release 0: the count becomes 0 and the pages are kept (their elements keep their
  // values until overwritten); otherwise every page is destroyed.
  void clear(int release) {
    if (release) {
      for (int p = 0; p < pages_; ++p) delete[] table_[p];
      table_.clear(0);
      pages_ = 0;
    }
    count_ = 0;
  }

  // A deep copy of `other`, in this array's page size.
  void become(utCopy, coPageArr const& other) {
    if (this == &other) return;
    clear(0);
    copy(other, 0, 0, other.count_);
  }

  // Copies n elements of `src` from index src_first to this array from index dst_first,
  // growing this array as needed. Returns 1 (0 for a bad range).
  int copy(coPageArr const& src, int src_first, int dst_first, int n) {
    if (n < 0 || src_first < 0 || dst_first < 0 || src_first + n > src.count_) return 0;
    grow_to(dst_first + n);
    for (int k = 0; k < n; ++k) (*this)[dst_first + k] = src[src_first + k];
    return 1;
  }
  // Copies n elements from src[src_first] on into this array from index dst_first.
  int copyin(T const* src, int src_first, int dst_first, int n) {
    if (n < 0 || src_first < 0 || dst_first < 0) return 0;
    grow_to(dst_first + n);
    for (int k = 0; k < n; ++k) (*this)[dst_first + k] = src[src_first + k];
    return 1;
  }
  // Copies n elements of this array from index src_first into dst[dst_first] on.
  int copyout(T* dst, int src_first, int dst_first, int n) const {
    if (n < 0 || src_first < 0 || dst_first < 0 || src_first + n > count_) return 0;
    for (int k = 0; k < n; ++k) dst[dst_first + k] = (*this)[src_first + k];
    return 1;
  }
  // Frees the pages that no element occupies.
  void repaginate() {
    int needed = (count_ + page_size_ - 1) >> page_shift_;
    for (int p = needed; p < pages_; ++p) delete[] table_[p];
    if (needed < pages_) {
      table_.shrink(needed, 0);
      pages_ = needed;
    }
  }
  // Reverses the order of the elements.
  void reverse() {
    for (int i = 0, j = count_ - 1; i < j; ++i, --j) {
      T t = (*this)[i];
      (*this)[i] = (*this)[j];
      (*this)[j] = t;
    }
  }
  // The count becomes min(count, n); with `release` the unused pages are freed. Returns 1.
  int shrink(int n, int release) {
    if (n < count_) count_ = n < 0 ? 0 : n;
    if (release) repaginate();
    return 1;
  }

 protected:
  // Allocates pages until more pages exist than `page`. Returns 1.
  int get_block(int page) {
    while (pages_ <= page) {
      table_.append(new T[page_size_]());
      ++pages_;
    }
    return 1;
  }

 private:
  void grow_to(int n) {
    if (n <= count_) return;
    get_block((n - 1) >> page_shift_);
    count_ = n;
  }

  int pages_;
  int count_;
  int page_size_;
  int page_shift_;
  coDynArr<T*> table_;
};

// Walks a paged array: `do_first()` positions on the first element (false when empty),
// `next()` advances (false past the end), `reset()` starts again.
template <class T>
class coPageArrcoIterator {
 public:
  explicit coPageArrcoIterator(coPageArr<T> const* array) : array_(array), index_(-1) {}
  void reset() { index_ = -1; }
  bool do_first() {
    index_ = 0;
    return index_ < array_->count();
  }
  bool next() {
    if (index_ < array_->count()) ++index_;
    return index_ < array_->count();
  }
  T const& current() const { return (*array_)[index_]; }
  int index() const { return index_; }

 private:
  coPageArr<T> const* array_;
  int index_;
};
