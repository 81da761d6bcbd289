#include "gfit/platform/sort.h"

#include <algorithm>
#include <numeric>

coObjInterface::~coObjInterface() = default;
coArrInterface::~coArrInterface() = default;

void coQuickSort::sort(int n) {
  if (n > 1) sort(0, n - 1);
}

void coQuickSort::insertion_sort(int lo, int hi) {
  for (int i = lo + 1; i <= hi; ++i)
    for (int j = i; j > lo && compare(j - 1, j) > 0; --j) arr_swap(j - 1, j);
}

void coQuickSort::sort(int lo, int hi) {
  // Recurse into the smaller part and loop on the larger, so the stack stays O(log n).
  while (hi - lo > 12) {
    int mid = lo + (hi - lo) / 2;
    if (compare(mid, lo) < 0) arr_swap(mid, lo);
    if (compare(hi, lo) < 0) arr_swap(hi, lo);
    if (compare(hi, mid) < 0) arr_swap(hi, mid);
    // The median now sits at mid; park it at hi - 1 and partition (lo, hi - 1).
    arr_swap(mid, hi - 1);
    int pivot = hi - 1;
    int i = lo, j = hi - 1;
    for (;;) {
      while (compare(++i, pivot) < 0) {
      }
      while (compare(--j, pivot) > 0) {
      }
      if (i >= j) break;
      arr_swap(i, j);
    }
    arr_swap(i, hi - 1);
    if (i - lo < hi - i) {
      sort(lo, i - 1);
      lo = i + 1;
    } else {
      sort(i + 1, hi);
      hi = i - 1;
    }
  }
  insertion_sort(lo, hi);
}

void doublecoQuickSortIndex(double const* keys, int n, coDynArr<int>& indices) {
  indices.clear(0);
  if (n <= 0) return;
  indices.reserve(n);
  indices.expand(n);
  std::iota(indices.begin(), indices.end(), 0);
  std::stable_sort(indices.begin(), indices.end(), [keys](int a, int b) { return keys[a] < keys[b]; });
}
