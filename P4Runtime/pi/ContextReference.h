// A counted reference to an object of a higher room, whose class the holder need not know.
#pragma once

#include <optional>
#include <string_view>
#include <type_traits>

#include "platform/vela/Entity.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// Shares a T, which derives from Base. Holders see the Base; code that includes T's header gets the
// T, as from a Vela::Ptr.
template <typename T, typename Base = Vela::Entity>
class ContextReference {
 public:
  ContextReference() = default;
  ContextReference(std::nullptr_t) {}  // NOLINT: null is a reference
  template <typename U>
  requires std::is_convertible_v<U*, T*> ContextReference(const Vela::Ptr<U>& object)
      : base_(object) {}  // NOLINT: shares what the Ptr shares

  Base* base() const { return base_.get(); }
  T* get() const { return static_cast<T*>(base_.get()); }
  T* operator->() const { return get(); }
  T& operator*() const { return *get(); }
  explicit operator bool() const { return static_cast<bool>(base_); }
  friend bool operator==(const ContextReference& a, const ContextReference& b) {
    return a.base_ == b.base_;
  }

 private:
  Vela::Ptr<Base> base_;
};

}  // namespace P4Runtime

template <typename T, typename Base>
struct Vela::TextForm<P4Runtime::ContextReference<T, Base>> {
  using Reference = P4Runtime::ContextReference<T, Base>;
  static const char* typeName() { return "reference"; }
  static std::string toText(const Reference& value) { return value ? "set" : "none"; }
  static std::optional<Reference> fromText(std::string_view) { return std::nullopt; }
};
