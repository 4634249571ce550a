// An IP address of either family, kept as its text; the type of address attributes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/vela/Text.h"

namespace P4Runtime {

class IpAddress {
 public:
  IpAddress() = default;  // 0.0.0.0
  static std::optional<IpAddress> fromText(std::string_view text);
  static IpAddress loopback() { return *fromText("127.0.0.1"); }

  const std::string& text() const { return text_; }
  bool isIpv6() const { return text_.find(':') != std::string::npos; }
  friend bool operator==(const IpAddress&, const IpAddress&) = default;

 private:
  std::string text_ = "0.0.0.0";
};

}  // namespace P4Runtime

template <>
struct Vela::TextForm<P4Runtime::IpAddress> {
  static const char* typeName() { return "IP address"; }
  static std::string toText(const P4Runtime::IpAddress& address) { return address.text(); }
  static std::optional<P4Runtime::IpAddress> fromText(std::string_view text) {
    return P4Runtime::IpAddress::fromText(text);
  }
};
