// The google.rpc.Status of a call.
#include "PI/frontend/StatusText.h"

#include <algorithm>

#include "absl/strings/str_cat.h"

namespace pi::fe::proto {

namespace {

constexpr int kUnknown = 2;
// Of the 8 KiB; the rest is for gRPC's other trailers and our own frame around the details.
constexpr size_t kHeaderBytes = 7 * 1024;
constexpr size_t kAdvisedBytesPerItem = 100;
// An Any with the type's name, and the code in it.
constexpr size_t kItemBytes = 42;

size_t messageBudget(size_t items) {
  const size_t frame = items * kItemBytes;
  if (frame < kHeaderBytes) return kHeaderBytes - frame;
  return kHeaderBytes + items * kAdvisedBytesPerItem - frame;
}

void doFitMessages(std::vector<p4::v1::Error>* errors) {
  size_t left = messageBudget(errors->size());
  for (p4::v1::Error& error : *errors) {
    if (error.message().size() > left) error.clear_message();
    left -= error.message().size();
  }
}

}  // namespace

google::rpc::Status okStatus() { return {}; }

google::rpc::Status plainStatus(int code, std::string message) {
  google::rpc::Status status;
  status.set_code(code);
  status.set_message(std::move(message));
  return status;
}

google::rpc::Status itemisedStatus(std::vector<p4::v1::Error>* errors, const char* what) {
  const auto failed = std::count_if(errors->begin(), errors->end(),
                                    [](const auto& error) { return error.canonical_code() != 0; });
  if (failed == 0) return okStatus();
  google::rpc::Status status = plainStatus(
      kUnknown,
      absl::StrCat(failed, " of ", errors->size(), " ", what, " failed; see the details"));
  doFitMessages(errors);
  for (const p4::v1::Error& error : *errors) status.add_details()->PackFrom(error);
  return status;
}

}  // namespace pi::fe::proto
