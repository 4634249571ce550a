// Reference-counted pointers: Ptr<T> shares an object that derives from RefCounted.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Vela {

// Base of everything a Ptr may hold. The count is atomic; the object itself is guarded by
// the lock of its members, usually the activity lock.
class RefCounted {
 public:
  RefCounted() = default;
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;
  virtual ~RefCounted() = default;

  void retain() const { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() const {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  uint32_t references() const { return refs_.load(std::memory_order_relaxed); }

 private:
  mutable std::atomic<uint32_t> refs_{0};
};

template <typename T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}              // NOLINT: null is a Ptr
  Ptr(T* object) : object_(object) {  // NOLINT: a fresh object becomes shared here
    if (object_) object_->retain();
  }
  Ptr(const Ptr& other) : Ptr(other.object_) {}
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <typename U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
      : Ptr(other.get()) {}  // NOLINT: derived to base
  ~Ptr() {
    if (object_) object_->release();
  }
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const { return object_; }
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

template <typename T, typename... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Vela

template <typename T>
struct std::hash<Vela::Ptr<T>> {
  size_t operator()(const Vela::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
