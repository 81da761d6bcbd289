// A library array lent a block it does not own, for the length of one call: the no-copy path
// from numpy to the fits.
//
// Why a trick, and why only here: `coDynArr` owns its block by contract. It allocates it,
// frees it when it grows, shrinks or is cleared, and frees it in its destructor; there is no
// mode in which it reads storage it did not make, and adding one would change what every
// array in the library promises (a borrowed array could not grow, so `append` and the
// auto-extending `operator[]` would have to fail or silently copy). The fits only read their
// point arrays through `const&`, so for them a view is enough; rather than bend the platform
// type for one host, this header sets the array's three block fields directly and takes
// them back before the array's destructor can free anything.
//
// The fields are private. Naming a private member in an explicit instantiation is allowed
// (access is not checked there), which gives member pointers without depending on the field
// layout: a renamed field fails to compile instead of misbehaving. Nothing else in the
// module touches the array's internals.
#pragma once

#include <type_traits>

#include "gfit/platform/arrays.h"

namespace gfit_python {

template <class Tag, typename Tag::type Member>
struct ExposeMember {
  friend typename Tag::type member(Tag) { return Member; }
};

// One tag per field and element type: the member pointer's type and the friend through which
// the instantiation below hands it out.
struct Block2 {
  using type = giPoint2* coDynArr<giPoint2>::*;
  friend type member(Block2);
};
struct Capacity2 {
  using type = int coDynArr<giPoint2>::*;
  friend type member(Capacity2);
};
struct Count2 {
  using type = int coDynArr<giPoint2>::*;
  friend type member(Count2);
};
struct Block3 {
  using type = giPoint3* coDynArr<giPoint3>::*;
  friend type member(Block3);
};
struct Capacity3 {
  using type = int coDynArr<giPoint3>::*;
  friend type member(Capacity3);
};
struct Count3 {
  using type = int coDynArr<giPoint3>::*;
  friend type member(Count3);
};
template struct ExposeMember<Block2, &coDynArr<giPoint2>::data_>;
template struct ExposeMember<Capacity2, &coDynArr<giPoint2>::capacity_>;
template struct ExposeMember<Count2, &coDynArr<giPoint2>::count_>;
template struct ExposeMember<Block3, &coDynArr<giPoint3>::data_>;
template struct ExposeMember<Capacity3, &coDynArr<giPoint3>::capacity_>;
template struct ExposeMember<Count3, &coDynArr<giPoint3>::count_>;

template <class P>
struct FieldsOf;
template <>
struct FieldsOf<giPoint2> {
  using Block = Block2;
  using Capacity = Capacity2;
  using Count = Count2;
};
template <>
struct FieldsOf<giPoint3> {
  using Block = Block3;
  using Capacity = Capacity3;
  using Count = Count3;
};

// Row i of a C-contiguous (n, D) float64 array is exactly the object representation of a
// giPoint2 / giPoint3: standard-layout classes of D doubles with no padding, trivially
// copyable and destructible (implicit-lifetime), so the buffer can serve as their block.
static_assert(std::is_standard_layout<giPoint3>::value && sizeof(giPoint3) == 3 * sizeof(double));
static_assert(std::is_standard_layout<giPoint2>::value && sizeof(giPoint2) == 2 * sizeof(double));
static_assert(std::is_trivially_copyable<giPoint3>::value && std::is_trivially_destructible<giPoint3>::value);
static_assert(std::is_trivially_copyable<giPoint2>::value && std::is_trivially_destructible<giPoint2>::value);

// The array of `n` points at `block` (storage that outlives this object), read-only.
template <class P>
class LentArray {
 public:
  LentArray() = default;
  LentArray(double const* block, int n) { lend(block, n); }
  LentArray(LentArray const&) = delete;
  LentArray& operator=(LentArray const&) = delete;
  ~LentArray() { lend(nullptr, 0); }

  // Points the array at `block` (nullptr: takes the block back, leaving an empty array).
  void lend(double const* block, int n) {
    array_.*member(typename FieldsOf<P>::Block{}) = reinterpret_cast<P*>(const_cast<double*>(block));
    array_.*member(typename FieldsOf<P>::Capacity{}) = n;
    array_.*member(typename FieldsOf<P>::Count{}) = n;
  }
  coDynArr<P> const& array() const { return array_; }

 private:
  coDynArr<P> array_;
};

}  // namespace gfit_python
