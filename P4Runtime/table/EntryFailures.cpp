#include "P4Runtime/table/EntryFailures.h"

#include <utility>

namespace P4Runtime {

void EntryFailures::failureIs(EntryHandle handle, std::string text) {
  texts_[handle] = std::move(text);
  publishFrom(handle);
}

void EntryFailures::failureDel(EntryHandle handle) {
  if (texts_.erase(handle) > 0) publishFrom(handle);
}

// A forwarding agent that is full fails a hundred thousand entries in a row: what lies behind the
// listed ones must cost nothing.
void EntryFailures::publishFrom(EntryHandle handle) {
  failedEntriesIs(texts_.size());
  if (listed_ == mostListed && handle > lastListed_) return;
  std::string lines;
  listed_ = 0;
  for (const auto& [failed, text] : texts_) {
    if (listed_ == mostListed) break;
    lines += (lines.empty() ? "" : "\n") + text;
    lastListed_ = failed;
    ++listed_;
  }
  listIs(lines);
}

}  // namespace P4Runtime
