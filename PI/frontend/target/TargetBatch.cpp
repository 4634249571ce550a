#include "PI/frontend/target/TargetBatch.h"

#include <absl/strings/str_cat.h>

#include <algorithm>

#include "PI/frontend/base/Permission.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_pending_imp.h"

namespace pi::fe::proto {

namespace {

constexpr int kBatchUpdateFailed = 40;  // the target writes the error into the status vector

}  // namespace

TargetBatch::TargetBatch(const TargetSession& session) : session_(session) {
  requireWritePermission();
  const pi_status_t begun = pi_batch_begin(session_.handle);
  if (begun == PI_STATUS_SUCCESS) return;
  if (begun == PI_STATUS_NO_FORWARDING_AGENT) {
    refuse(code::unavailable,
           "no forwarding agent is attached; write again once one has been started");
  }
  requireWritePermission();  // it may have been withdrawn just now
  refuse(code::internal, "the target began no batch: status ", begun);
}

TargetBatch::~TargetBatch() {
  if (!isOpen_) return;
  for (auto& [offset, error] : statuses_) error.set_canonical_code(code::internal);
  end();
}

void TargetBatch::add(uint32_t offset, int status) {
  auto& error = statuses_.emplace_back(offset, p4::v1::Error()).second;
  const bool isPending = status == PI_STATUS_SUCCESS || status == kBatchUpdateFailed;
  error.set_canonical_code(isPending ? code::deadlineExceeded : code::internal);
  if (!isPending) error.set_message(absl::StrCat("the target refused it with status ", status));
}

TargetBatch::Statuses TargetBatch::end() {
  isOpen_ = false;
  pi_batch_current_clear();
  pi_batch_end(session_.handle, true);
  _pi_update_pending_status(&statuses_);
  std::erase_if(statuses_, [](const auto& one) { return one.second.canonical_code() == code::ok; });
  for (auto& [offset, error] : statuses_) {
    if (error.canonical_code() == code::deadlineExceeded && error.message().empty()) {
      error.set_message("the forwarding plane did not confirm it in time; it was undone");
    }
  }
  return std::move(statuses_);
}

}  // namespace pi::fe::proto
