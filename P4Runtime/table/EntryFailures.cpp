#include "P4Runtime/table/EntryFailures.h"

#include <utility>

namespace P4Runtime {

void EntryFailures::failureIs(EntryHandle handle, std::string text) {
  if (const std::string* entry = undone(handle)) unremoved_[*entry] = handle;
  texts_[handle] = std::move(text);
  publishFrom(handle);
}

void EntryFailures::failureDel(EntryHandle handle) {
  if (texts_.erase(handle) > 0) publishFrom(handle);
}

void EntryFailures::undoneIs(EntryHandle handle, std::string text, uint64_t sequence) {
  if (undone_.size() == mostUndone) undoneDel(undone_.begin()->first);
  undone_[handle] = {std::move(text), sequence};
}

const std::string* EntryFailures::undone(EntryHandle handle) const {
  const auto found = undone_.find(handle);
  return found == undone_.end() ? nullptr : &found->second.text;
}

void EntryFailures::undoneDel(EntryHandle handle) {
  const auto found = undone_.find(handle);
  if (found == undone_.end()) return;
  unremoved_.erase(found->second.text);
  undone_.erase(found);
}

void EntryFailures::programmedIs(const std::string& text) {
  const auto found = unremoved_.find(text);
  if (found == unremoved_.end()) return;
  const EntryHandle handle = found->second;
  failureDel(handle);
  undoneDel(handle);
}

void EntryFailures::inStepIs(uint64_t sequence) {
  for (auto next = undone_.begin(); next != undone_.end();) {
    const EntryHandle handle = next->first;
    const bool settled = next++->second.sequence <= sequence;
    if (!settled) continue;
    failureDel(handle);
    undoneDel(handle);
  }
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
