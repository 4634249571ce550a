// The google.rpc.Status of a call.
#include "PI/frontend/base/StatusText.h"

#include <absl/strings/str_cat.h>

#include <algorithm>

#include "PI/core/PlainText.h"

namespace pi::fe::proto {

using core::plainText;

namespace {

constexpr int kUnknown = 2;
constexpr int kAborted = 10;
// Of the 8 KiB; the rest is for gRPC's other trailers and our own frame around the details.
constexpr size_t kHeaderBytes = 7 * 1024;
constexpr size_t kLargerHeaderBytes = 62 * 1024;  // of the 64 KiB of other clients
constexpr size_t kAdvisedBytesPerItem = 100;
// An Any with the type's name, and the code in it.
constexpr size_t kItemBytes = 42;
// Of the only message, in the status message; it travels there percent-encoded, and twice.
constexpr size_t kOnlyMessageBytes = 512;
constexpr size_t kEncodedBytesPerByte = 4;
// Of the message of a whole call's refusal, three bytes each when none of it is ASCII.
constexpr size_t kPlainMessageBytes = 2 * 1024;

size_t messageBudget(size_t items) {
  const size_t frame = items * kItemBytes;
  if (frame < kHeaderBytes) return kHeaderBytes - frame;
  const size_t advised = kHeaderBytes + items * kAdvisedBytesPerItem;
  const size_t most = frame < kLargerHeaderBytes ? kLargerHeaderBytes : advised;
  return std::min(advised, most) - frame;
}

void doFitMessages(std::vector<p4::v1::Error>* errors, size_t reserved) {
  const size_t budget = messageBudget(errors->size());
  size_t left = budget - std::min(budget, reserved);
  for (p4::v1::Error& error : *errors) {
    if (error.message().size() > left) error.clear_message();
    left -= error.message().size();
  }
}

bool isFailure(const p4::v1::Error& error) { return error.canonical_code() != 0; }

// An ABORTED one failed with another.
bool isCulprit(const p4::v1::Error& error) {
  return isFailure(error) && error.canonical_code() != kAborted;
}

// The message of a single failure stands in the status itself, where every client shows it.
std::string summary(const std::vector<p4::v1::Error>& errors, size_t culprits, const char* what) {
  const bool isWhole = std::ranges::all_of(errors, isFailure) && culprits != errors.size();
  const char* end = isWhole ? ", so none of them is in effect" : "";
  if (culprits != 1) {
    return absl::StrCat(culprits, " of ", errors.size(), " ", what, " failed", end,
                        "; see the details");
  }
  const auto only = std::find_if(errors.begin(), errors.end(), isCulprit);
  const std::string message = plainText(only->message(), kOnlyMessageBytes);
  if (errors.size() == 1) return message;
  return absl::StrCat("1 of ", errors.size(), " ", what, " failed", end, ": ", message);
}

}  // namespace

google::rpc::Status okStatus() { return {}; }

google::rpc::Status plainStatus(int code, const std::string& message) {
  google::rpc::Status status;
  status.set_code(code);
  status.set_message(plainText(message, kPlainMessageBytes));
  return status;
}

google::rpc::Status itemisedStatus(std::vector<p4::v1::Error>* errors, const char* what) {
  const auto failed = std::count_if(errors->begin(), errors->end(), isFailure);
  if (failed == 0) return okStatus();
  for (p4::v1::Error& error : *errors) error.set_message(plainText(error.message()));
  const auto culprits = static_cast<size_t>(std::ranges::count_if(*errors, isCulprit));
  google::rpc::Status status = plainStatus(kUnknown, summary(*errors, culprits, what));
  doFitMessages(errors, culprits == 1 ? kEncodedBytesPerByte * status.message().size() : 0);
  for (const p4::v1::Error& error : *errors) status.add_details()->PackFrom(error);
  return status;
}

}  // namespace pi::fe::proto
