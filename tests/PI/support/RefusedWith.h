// Matches a refusal: RefusedWith(code, text) takes the status of a call, of this library's or of
// gRPC's, or a p4.v1.Error, with this canonical code and a message that has the text.
#pragma once

#include <gmock/gmock.h>

#include <string>

namespace TestSupport {

template <typename Status>
int codeOf(const Status& status) {
  if constexpr (requires { status.error_code(); }) {
    return status.error_code();
  } else if constexpr (requires { status.canonical_code(); }) {
    return status.canonical_code();
  } else {
    return status.code();
  }
}

template <typename Status>
std::string messageOf(const Status& status) {
  if constexpr (requires { status.error_message(); }) {
    return status.error_message();
  } else {
    return status.message();
  }
}

MATCHER_P2(RefusedWith, code, text, "") {
  *result_listener << "code " << codeOf(arg) << ", \"" << messageOf(arg) << '"';
  return codeOf(arg) == static_cast<int>(code) &&
         testing::Value(messageOf(arg), testing::HasSubstr(text));
}

}  // namespace TestSupport
