// Shared handles, `coPrf<T>`: a pointer to the object plus a reference-counted control block,
// with the semantics of std::shared_ptr (atomic use and weak counts; copying increments,
// destruction decrements, the last release disposes).
//
// Two kinds of control block:
//  - owning: made from a bare pointer or from a std::shared_ptr; the last release deletes the
//    object (through its virtual destructor when T is a base class);
//  - external: made with the `coPrfExtern` tag; the control block holds a
//    `coPrfExternalDeleter`, which is invoked with the pointer at the last release and never
//    deletes it. The caller owns the object and keeps it alive while any handle refers to it.
//
// The handle is a thin wrapper over std::shared_ptr so that it converts to one without a new
// control block: a std::shared_ptr made from a handle shares the handle's counts.
#pragma once

#include <memory>
#include <utility>

// Tag of the constructor that makes an external (non-owning) handle.
struct coPrfExtern {};

// The deleter of external handles: called with the pointer at the last release, does nothing.
struct coPrfExternalDeleter {
  template <class T>
  void operator()(T*) const noexcept {}
};

namespace gfit::detail {
struct coPrfInspector;
}

template <class T>
class coPrf {
 public:
  coPrf() = default;
  // Owning: the last release deletes `object`.
  explicit coPrf(T* object) : ptr_(object) {}
  coPrf(std::shared_ptr<T> object) : ptr_(std::move(object)) {}  // NOLINT: shares, like a copy
  // External: the handles never delete `object`.
  coPrf(coPrfExtern, T* object) : ptr_(object, coPrfExternalDeleter{}) {}

  // std::shared_ptr's copy assignment raises the source's count before releasing the old
  // object, so assigning a handle to itself (or to a handle of the same object) is safe.
  coPrf(coPrf const&) = default;
  coPrf& operator=(coPrf const&) = default;
  coPrf(coPrf&&) noexcept = default;
  coPrf& operator=(coPrf&&) noexcept = default;

  operator std::shared_ptr<T>() const { return ptr_; }  // NOLINT: shares the control block

  T* get() const { return ptr_.get(); }
  T& operator*() const { return *ptr_; }
  T* operator->() const { return ptr_.get(); }
  explicit operator bool() const { return static_cast<bool>(ptr_); }
  long use_count() const { return ptr_.use_count(); }

 private:
  friend struct gfit::detail::coPrfInspector;
  // 1 when the control block carries a coPrfExternalDeleter (asked through the control
  // block's deleter query), 0 for an owning or empty handle.
  int external() const { return std::get_deleter<coPrfExternalDeleter>(ptr_) != nullptr; }

  std::shared_ptr<T> ptr_;
};

namespace gfit::detail {
// Read access to what a handle keeps private, for the library's own checks and tests.
struct coPrfInspector {
  template <class T>
  static int external(coPrf<T> const& handle) {
    return handle.external();
  }
};
}  // namespace gfit::detail
