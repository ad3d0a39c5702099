// Vix::Ptr: the intrusive reference to an entity (any Vix::PtrInterface).
//
// Copying a Ptr adds a reference, destroying it releases one; the object is
// destroyed with its last reference. Dereferencing an empty Ptr throws
// NullPtrError ("null ValidPtr") instead of crashing, which is how factories
// that produced nothing fail. Vix::make is the one place where entities are
// allocated.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "framework/Errors.h"
#include "framework/PtrInterface.h"

namespace Vix {

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { inc(); }
  Ptr(const Ptr& o) : p_(o.p_) { inc(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) : p_(o.get()) {
    inc();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { dec(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return valid(); }
  T& operator*() const { return *valid(); }
  explicit operator bool() const { return p_ != nullptr; }

  // Hands the reference over to the caller.
  T* release() { return std::exchange(p_, nullptr); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(const Ptr<U>& o) const {
    return p_ == o.get();
  }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }

 private:
  T* valid() const {
    if (p_ == nullptr) [[unlikely]]
      throw NullPtrError();
    return p_;
  }
  void inc() const {
    if (p_) p_->referenceInc();
  }
  void dec() const {
    if (p_) p_->referenceDec();
  }

  T* p_ = nullptr;
};

// Allocates an entity; its first reference is the returned Ptr.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// The Ptr viewed as another type; an object of another type yields null.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Vix

template <class T>
struct std::hash<Vix::Ptr<T>> {
  size_t operator()(const Vix::Ptr<T>& p) const { return std::hash<T*>()(p.get()); }
};
