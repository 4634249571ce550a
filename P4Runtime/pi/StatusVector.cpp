#include "P4Runtime/pi/StatusVector.h"

#include <grpcpp/support/status.h>

#include <algorithm>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

}  // namespace

bool isPending(const p4::v1::Error& error) {
  return error.canonical_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
}

StatusIter statusIterAtOffset(StatusVector& statusVector, BatchOffset offset) {
  const auto found =
      std::lower_bound(statusVector.begin(), statusVector.end(), offset,
                       [](const auto& element, BatchOffset o) { return element.first < o; });
  return found != statusVector.end() && found->first == offset ? found : statusVector.end();
}

void settleStatusEntry(StatusVector& statusVector, StatusIter element, uint32_t errorCode,
                       const std::string& message) {
  if (errorCode == 0) {
    SCRIVEL_TRACE(7, "markStatusEntryNotPending", " Remove statusEntry for offset ",
                  element->first);
    statusVector.erase(element);
    return;
  }
  SCRIVEL_TRACE(1, "markStatusEntryNotPending", " Setting errorCode for offset ", element->first);
  element->second.set_canonical_code(canonicalCode(errorCode));
  element->second.set_message(message);
}

void copyKnownErrors(const StatusVector& known, StatusVector& statusVector) {
  for (const auto& [offset, error] : known) {
    const auto found = statusIterAtOffset(statusVector, offset);
    if (found == statusVector.end()) {
      SCRIVEL_TRACE(0, "_pi_update_pending_status", " reached end of status for offset ", offset);
      return;
    }
    SCRIVEL_TRACE(5, "_pi_update_pending_status", " Copying pending status for offset ", offset);
    found->second = error;
  }
}

}  // namespace P4Runtime
