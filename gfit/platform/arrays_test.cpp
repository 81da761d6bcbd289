#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

TEST(DynamicArray, GrowsByWholeSteps) {
  coDynArr<int> a(0, 10);
  EXPECT_EQ(a.capacity(), 0);
  a.append(1);
  EXPECT_EQ(a.capacity(), 10);
  for (int i = 2; i <= 10; ++i) a.append(i);
  EXPECT_EQ(a.capacity(), 10);
  a.append(11);
  EXPECT_EQ(a.capacity(), 20);
  EXPECT_EQ(a.count(), 11);
  // Index 45 with capacity 20, step 10: shortfall 25 -> 20 + (25 - 5) + 10 = 50.
  a[45] = 7;
  EXPECT_EQ(a.capacity(), 50);
  EXPECT_EQ(a.count(), 46);
  EXPECT_EQ(a[10], 11);  // contents survive the move to the new block
}

TEST(DynamicArray, ExpandReserveShrinkClear) {
  coDynArr<double> a(4, 3);
  EXPECT_EQ(a.capacity(), 4);
  EXPECT_EQ(a.expand(6), 1);  // resize(5): 4 + (1 - 1) + 3
  EXPECT_EQ(a.capacity(), 7);
  EXPECT_EQ(a.count(), 6);
  a.reserve(3);
  EXPECT_EQ(a.capacity(), 7);
  a.reserve(20);  // resize(19): shortfall 12 -> 7 + 12 + 3
  EXPECT_EQ(a.capacity(), 22);
  EXPECT_EQ(a.count(), 6);
  a.shrink(4, 0);
  EXPECT_EQ(a.count(), 4);
  EXPECT_EQ(a.capacity(), 22);
  a.shrink(2, 1);
  EXPECT_EQ(a.capacity(), 2);
  EXPECT_EQ(a.count(), 2);
  a.shrink(0, 0);  // empties, keeps the block
  EXPECT_EQ(a.count(), 0);
  EXPECT_EQ(a.capacity(), 2);
  a.clear(0);
  EXPECT_EQ(a.capacity(), 2);
  a.clear(1);
  EXPECT_EQ(a.capacity(), 0);
  EXPECT_EQ(a.data(), nullptr);
}

TEST(DynamicArray, NewElementsAreZeroNeverStaleAndAZeroStepStillGrows) {
  {
    coDynArr<double> junk(64, 8);
    junk.expand(64);
    for (double& v : junk) v = 7.0;
  }
  coDynArr<double> fresh(64, 8);  // likely the block just freed
  fresh.expand(64);
  for (double v : fresh) EXPECT_EQ(v, 0.0);
  coDynArr<int> a(4, 4);
  a.expand(3);
  a[0] = 1, a[1] = 2, a[2] = 3;
  a.shrink(1, 0);
  EXPECT_EQ(a[2], 0);  // reading past the end extends with new elements, not the old ones
  EXPECT_EQ(a[1], 0);
  a.shrink(1, 0);
  a.expand(3);
  EXPECT_EQ(a[2], 0);
  for (int step : {0, -3}) {
    coDynArr<int> b(0, step);
    EXPECT_EQ(b.step(), coDynArr<int>::default_step);
    for (int i = 0; i < 40; ++i) b.append(i);
    EXPECT_EQ(b.count(), 40);
    EXPECT_EQ(b[39], 39);
  }
}

TEST(DynamicArray, CopiesAreDeepAndReadingPastTheEndExtends) {
  giPoint3coDynArr a{giPoint3(1, 2, 3), giPoint3(4, 5, 6)};
  giPoint3coDynArr b(utCopy{}, a);
  b[0] = giPoint3(0, 0, 0);
  EXPECT_EQ(a[0].x(), 1.0);
  giPoint3 const& fresh = b[4];  // auto-extends with default (unset) points
  EXPECT_EQ(b.count(), 5);
  EXPECT_TRUE(fresh.invalid());
  coDynArr<int> c;
  c.become(utCopy{}, coDynArr<int>{5, 6, 7});
  EXPECT_EQ(c.count(), 3);
  EXPECT_EQ(c[2], 7);
  coDynArrcoIterator<int> it(&c);
  int sum = 0;
  while (it.next()) sum += it.current();
  EXPECT_EQ(sum, 18);
  it.reset();
  EXPECT_TRUE(it.next());
  EXPECT_EQ(it.current(), 5);
}

TEST(PagedArray, ReferencesStayValidWhileItGrows) {
  coPageArr<int> a;
  EXPECT_EQ(a.page_size(), 256);
  a.append(42);
  int const* first = &a[0];
  for (int i = 1; i <= 10000; ++i) a.append(i);
  EXPECT_EQ(first, &a[0]);
  EXPECT_EQ(*first, 42);
  EXPECT_EQ(a.count(), 10001);
  EXPECT_EQ(a.pages(), (10001 + 255) / 256);
  EXPECT_EQ(a[10000], 10000);
}

TEST(PagedArray, ReleasesSharedHandlesOnClear) {
  coPageArr<std::shared_ptr<int>> a(2, 1, 1);
  EXPECT_EQ(a.page_size(), 4);
  auto owned = std::make_shared<int>(5);
  for (int i = 0; i < 9; ++i) a.append(owned);
  EXPECT_EQ(a.pages(), 3);
  EXPECT_EQ(owned.use_count(), 10);
  a.clear(0);  // count 0, pages and their handles kept
  EXPECT_EQ(owned.use_count(), 10);
  a.clear(1);
  EXPECT_EQ(owned.use_count(), 1);
  EXPECT_EQ(a.pages(), 0);
}

TEST(PagedArray, CopyInOutReverseShrink) {
  coPageArr<double> a(3, 1, 1);
  std::vector<double> v(20);
  for (int i = 0; i < 20; ++i) v[i] = i;
  ASSERT_EQ(a.copyin(v.data(), 0, 0, 20), 1);
  EXPECT_EQ(a.count(), 20);
  a.reverse();
  EXPECT_EQ(a[0], 19.0);
  std::vector<double> out(5);
  ASSERT_EQ(a.copyout(out.data(), 15, 0, 5), 1);
  EXPECT_EQ(out[4], 0.0);
  coPageArr<double> b(utCopy{}, a);
  EXPECT_EQ(b[19], 0.0);
  a.shrink(3, 1);
  EXPECT_EQ(a.count(), 3);
  EXPECT_EQ(a.pages(), 1);
  EXPECT_EQ(b.count(), 20);
  coPageArrcoIterator<double> it(&b);
  ASSERT_TRUE(it.do_first());
  EXPECT_EQ(it.current(), 19.0);
}

class IntSorter : public coQuickSort {
 public:
  explicit IntSorter(std::vector<int>& v) : v_(v) {}
  int obj_compare(void* const a, void* const b) override { return utCompare(*static_cast<int*>(a), *static_cast<int*>(b)); }
  void* arr_get(int i) override { return &v_[i]; }
  void arr_swap(int i, int j) override { std::swap(v_[i], v_[j]); }

 private:
  std::vector<int>& v_;
};

TEST(Sorting, QuickSortAgreesWithTheStandardSort) {
  gfit::testing::Rng rng(11);
  for (int n : {0, 1, 2, 5, 13, 100, 1000}) {
    std::vector<int> v(n);
    for (int& x : v) x = static_cast<int>(rng.uniform(0, 50));  // many ties
    std::vector<int> expected = v;
    std::sort(expected.begin(), expected.end());
    IntSorter(v).sort(n);
    EXPECT_EQ(v, expected) << "n = " << n;
  }
}

TEST(Sorting, IndexSortKeepsEqualKeysInIndexOrder) {
  double keys[] = {3.0, 1.0, 2.0, 1.0, -5.0};
  intcoDynArr idx;
  doublecoQuickSortIndex(keys, 5, idx);
  EXPECT_EQ(std::vector<int>(idx.begin(), idx.end()), (std::vector<int>{4, 1, 3, 2, 0}));
}

}  // namespace
