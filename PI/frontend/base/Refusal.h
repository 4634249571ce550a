// The refusal of an update, a query or a call: a canonical code, and a message for the controller.
#pragma once

#include <absl/strings/str_cat.h>

#include <exception>
#include <string>
#include <utility>

namespace pi::fe::proto {

// Canonical gRPC codes, as they travel in google.rpc.Status and p4.v1.Error.
namespace code {
inline constexpr int ok = 0;
inline constexpr int cancelled = 1;
inline constexpr int unknown = 2;
inline constexpr int invalidArgument = 3;
inline constexpr int deadlineExceeded = 4;
inline constexpr int notFound = 5;
inline constexpr int alreadyExists = 6;
inline constexpr int permissionDenied = 7;
inline constexpr int resourceExhausted = 8;
inline constexpr int failedPrecondition = 9;
inline constexpr int aborted = 10;
inline constexpr int outOfRange = 11;
inline constexpr int unimplemented = 12;
inline constexpr int internal = 13;
inline constexpr int unavailable = 14;
}  // namespace code

// Thrown where the fault is found; becomes the result of its update, query or call.
class Refusal : public std::exception {
 public:
  Refusal(int code, std::string message) : code_(code), message_(std::move(message)) {}
  int code() const { return code_; }
  const std::string& message() const { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  int code_;
  std::string message_;
};

template <typename... Texts>
[[noreturn]] void refuse(int code, const Texts&... texts) {
  throw Refusal(code, absl::StrCat(texts...));
}

}  // namespace pi::fe::proto
