// Sorting through interfaces, and an index sort of doubles.
//
// `coQuickSort` sorts any array that it reaches through three operations: the address of
// element i (`arr_get`), a swap of two elements (`arr_swap`) and a three-way comparison of
// two elements by address (`obj_compare`, -1, 0 or 1). The sort is an in-place quicksort
// (median of three, insertion sort for short runs): deterministic, not stable.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/dynarr.h"

class GFIT_EXPORT coObjInterface {
 public:
  virtual ~coObjInterface();
  virtual int obj_compare(void* const a, void* const b) = 0;
};

class GFIT_EXPORT coArrInterface {
 public:
  virtual ~coArrInterface();
  virtual void* arr_get(int i) = 0;
  virtual void arr_swap(int i, int j) = 0;
};

class GFIT_EXPORT coQuickSort : public coArrInterface, public coObjInterface {
 public:
  // Sorts elements [0, n) into ascending order of `obj_compare`.
  void sort(int n);
  void sort(int first, int last);  // elements [first, last]

 private:
  int compare(int i, int j) { return obj_compare(arr_get(i), arr_get(j)); }
  void insertion_sort(int lo, int hi);
};

// indices = 0 .. n-1 ordered by ascending keys[i]; equal keys keep ascending index order.
GFIT_EXPORT void doublecoQuickSortIndex(double const* keys, int n, coDynArr<int>& indices);
