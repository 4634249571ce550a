// How long a batch waits for the next report; the type of an attribute.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/vela/Text.h"

namespace P4Runtime {

// Whole seconds count. Operators can only set values that leave forwarding agents time and
// controllers a response; the code may use any value.
struct BatchTimeout {
  static constexpr double shortest = 1;
  static constexpr double longest = 3600;

  BatchTimeout(double seconds) : seconds(seconds) {}  // NOLINT: reads as a number
  double seconds;

  friend bool operator==(const BatchTimeout&, const BatchTimeout&) = default;
};

}  // namespace P4Runtime

template <>
struct Vela::TextForm<P4Runtime::BatchTimeout> {
  static const char* typeName() { return "number of seconds from 1 to 3600"; }
  static std::string toText(const P4Runtime::BatchTimeout& timeout) {
    return doubleToText(timeout.seconds);
  }
  static std::optional<P4Runtime::BatchTimeout> fromText(std::string_view text) {
    const auto seconds = doubleFromText(text);
    if (!seconds || *seconds < P4Runtime::BatchTimeout::shortest ||
        *seconds > P4Runtime::BatchTimeout::longest) {
      return std::nullopt;
    }
    return P4Runtime::BatchTimeout(*seconds);
  }
};
