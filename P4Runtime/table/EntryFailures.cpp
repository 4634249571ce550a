#include "P4Runtime/table/EntryFailures.h"

#include <utility>

namespace P4Runtime {

void EntryFailures::failureIs(EntryHandle handle, std::string text) {
  texts_[handle] = std::move(text);
  publish();
}

void EntryFailures::failureDel(EntryHandle handle) {
  if (texts_.erase(handle) > 0) publish();
}

void EntryFailures::publish() {
  std::string lines;
  size_t listed = 0;
  for (const auto& [handle, text] : texts_) {
    if (++listed > mostListed) break;
    lines += (lines.empty() ? "" : "\n") + text;
  }
  listIs(lines);
  failedEntriesIs(texts_.size());
}

}  // namespace P4Runtime
