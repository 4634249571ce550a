// The name of a kernel network device; the type of an attribute.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "platform/vela/Text.h"

namespace P4Runtime {

class DeviceName {
 public:
  static constexpr size_t longest = 15;  // characters; the kernel's limit

  DeviceName() = default;  // "p4controller"
  // Empty for a text that the kernel takes as no name.
  static std::optional<DeviceName> fromText(std::string_view text) {
    const auto isOdd = [](unsigned char c) {
      return c <= ' ' || c == '/' || c == ':' || c == 0x7f;
    };
    if (text.empty() || text.size() > longest || text == "." || text == "..") return std::nullopt;
    if (std::any_of(text.begin(), text.end(), isOdd)) return std::nullopt;
    DeviceName name;
    name.text_ = text;
    return name;
  }

  const std::string& text() const { return text_; }
  friend bool operator==(const DeviceName&, const DeviceName&) = default;

 private:
  std::string text_ = "p4controller";
};

}  // namespace P4Runtime

template <>
struct Vela::TextForm<P4Runtime::DeviceName> {
  static const char* typeName() { return "device name of 1 to 15 characters"; }
  static std::string toText(const P4Runtime::DeviceName& name) { return name.text(); }
  static std::optional<P4Runtime::DeviceName> fromText(std::string_view text) {
    return P4Runtime::DeviceName::fromText(text);
  }
};
