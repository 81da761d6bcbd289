// The dynamic array by value, `coDynArr<T>`.
//
// A contiguous block of `capacity` default-constructed elements of which the first `count`
// are in use. The block grows in whole multiples of the grow step, by a fixed rule:
// to make room for index i >= capacity, with shortfall d = i - capacity, the new capacity is
//     capacity + (d - d mod step) + step.
// A made-empty array with step 10 that receives its first element has capacity 10; the
// 11th element makes it 20. The growth is arithmetic, not geometric: fill large arrays after
// `reserve` (or the sized constructor), never element by element into a small step.
//
// Reading or writing index i >= count through the non-const `operator[]` extends the array
// to i + 1 elements. The const `operator[]` requires i < count.
//
// Every element is value-initialised when its block is made (zero for numbers), and the
// elements that an extension brings into use (operator[], expand) are value-initialised
// again, so an index past the count never reads an element left over from before a shrink.
// A grow step below 1 cannot make room; it is taken as the default step (16).
#pragma once

#include <cassert>
#include <initializer_list>
#include <utility>

#include "gfit/platform/utilities.h"

template <class T>
class coDynArr {
 public:
  static constexpr int default_step = 16;

  coDynArr() : data_(nullptr), capacity_(0), count_(0), step_(default_step) {}
  coDynArr(int capacity, int step) : data_(nullptr), capacity_(0), count_(0), step_(usable_step(step)) {
    if (capacity >= 1) {
      data_ = new T[capacity]();
      capacity_ = capacity;
    }
  }
  coDynArr(std::initializer_list<T> values) : coDynArr(static_cast<int>(values.size()), default_step) {
    for (T const& v : values) data_[count_++] = v;
  }
  coDynArr(utCopy, coDynArr const& other) : coDynArr() { become(utCopy{}, other); }
  coDynArr(coDynArr const& other) : coDynArr() { become(utCopy{}, other); }
  coDynArr(coDynArr&& other) noexcept
      : data_(other.data_), capacity_(other.capacity_), count_(other.count_), step_(other.step_) {
    other.data_ = nullptr;
    other.capacity_ = other.count_ = 0;
  }
  coDynArr& operator=(coDynArr const& other) {
    if (this != &other) become(utCopy{}, other);
    return *this;
  }
  coDynArr& operator=(coDynArr&& other) noexcept {
    if (this != &other) {
      delete[] data_;
      data_ = other.data_;
      capacity_ = other.capacity_;
      count_ = other.count_;
      step_ = other.step_;
      other.data_ = nullptr;
      other.capacity_ = other.count_ = 0;
    }
    return *this;
  }
  ~coDynArr() { delete[] data_; }

  // A deep copy of `other`: capacity equal to its count, its grow step.
  void become(utCopy, coDynArr const& other) {
    if (this == &other) return;
    T* block = other.count_ > 0 ? new T[other.count_]() : nullptr;
    for (int i = 0; i < other.count_; ++i) block[i] = other.data_[i];
    delete[] data_;
    data_ = block;
    capacity_ = other.count_;
    count_ = other.count_;
    step_ = other.step_;
  }

  int count() const { return count_; }
  int size() const { return count_; }
  bool empty() const { return count_ == 0; }
  int capacity() const { return capacity_; }
  int step() const { return step_; }

  // Makes the array hold n elements (growing the block when n > capacity). Returns 1.
  int expand(int n) {
    if (n > capacity_) resize(n - 1);
    if (n > count_) extend_to(n);
    return 1;
  }
  // Makes room for n elements without changing the count. Returns 1.
  int reserve(int n) {
    if (n > capacity_) resize(n - 1);
    return 1;
  }
  // n != 0: with `release`, a block larger than n is reallocated to exactly n elements;
  // the count becomes min(count, n). n == 0: the count becomes 0, and with `release` the
  // block is freed. Returns 1.
  int shrink(int n, int release) {
    if (n != 0) {
      if (n < capacity_ && release) {
        int keep = count_ < n ? count_ : n;
        T* block = new T[n]();
        for (int i = 0; i < keep; ++i) block[i] = std::move(data_[i]);
        delete[] data_;
        data_ = block;
        capacity_ = n;
      }
      if (n < count_) count_ = n;
    } else {
      if (release) free_block();
      count_ = 0;
    }
    return 1;
  }
  // release 0: the count becomes 0 and the block is kept; otherwise the block is freed.
  void clear(int release = 0) {
    if (release) free_block();
    count_ = 0;
  }

  void append(T const& v) {
    if (count_ >= capacity_) resize(count_);
    data_[count_++] = v;
  }

  T& operator[](int i) {
    assert(i >= 0);
    if (i >= count_) {
      if (i >= capacity_) resize(i);
      extend_to(i + 1);
    }
    return data_[i];
  }
  T const& operator[](int i) const {
    assert(i >= 0 && i < count_);
    return data_[i];
  }

  T* data() { return data_; }
  T const* data() const { return data_; }
  T* begin() { return data_; }
  T* end() { return data_ + count_; }
  T const* begin() const { return data_; }
  T const* end() const { return data_ + count_; }

 protected:
  // Makes room for the element of the given index (see the class comment for the rule).
  void resize(int index) {
    int d = index - capacity_;
    int grown = capacity_ + (d - d % step_) + step_;
    T* block = new T[grown]();
    for (int i = 0; i < count_; ++i) block[i] = std::move(data_[i]);
    if (capacity_ > 0) delete[] data_;
    data_ = block;
    capacity_ = grown;
  }

 private:
  static int usable_step(int step) { return step >= 1 ? step : default_step; }
  // Brings elements [count, n) into use, each value-initialised (they may hold what a
  // shrink left behind).
  void extend_to(int n) {
    for (int i = count_; i < n; ++i) data_[i] = T();
    count_ = n;
  }
  void free_block() {
    delete[] data_;
    data_ = nullptr;
    capacity_ = 0;
  }

  T* data_;
  int capacity_;
  int count_;
  int step_;
};

// Walks a dynamic array from its first element: `next()` advances and returns false past
// the end; `reset()` starts again.
template <class T>
class coDynArrcoIterator {
 public:
  explicit coDynArrcoIterator(coDynArr<T> const* array) : array_(array), index_(-1) {}
  void reset() { index_ = -1; }
  bool next() {
    assert(invariant());
    if (index_ < array_->count()) ++index_;
    return index_ < array_->count();
  }
  T const& current() const { return (*array_)[index_]; }
  int index() const { return index_; }

 protected:
  bool invariant() const { return array_ != nullptr && index_ >= -1 && index_ <= array_->count(); }

 private:
  coDynArr<T> const* array_;
  int index_;
};
