#include "P4Runtime/table/failures/EntryFailures.h"

#include <iterator>
#include <utility>

namespace P4Runtime {

bool EntryFailures::isFailing(EntryHandle handle) const {
  const auto first = failures_.lower_bound({handle, 0});
  return first != failures_.end() && first->first.first == handle;
}

bool EntryFailures::failureIs(EntryHandle handle, uint64_t agent, uint64_t sequence,
                              std::string text) {
  if (const Undone* entry = undone(handle)) unremoved_[entry->text] = handle;
  const bool isNewEntry = !isFailing(handle);
  const auto [found, isNew] = failures_.try_emplace({handle, agent});
  Failure& failure = found->second;
  if (!isNew && (sequence < failure.sequence || text == failure.text)) return false;
  failure = {sequence, std::move(text)};
  if (isNewEntry) ++entries_;
  publishFrom(handle);
  return true;
}

void EntryFailures::failureDel(EntryHandle handle) {
  if (!isFailing(handle)) return;
  const auto first = firstOf(handle);
  auto last = first;
  while (last != failures_.end() && last->first.first == handle) ++last;
  failures_.erase(first, last);
  --entries_;
  publishFrom(handle);
}

void EntryFailures::failureDelAll() {
  failures_.clear();
  entries_ = 0;
  undone_.clear();
  notProgrammedYet_.clear();
  unremoved_.clear();
  publishFrom(0);
}

void EntryFailures::programmedIs(EntryHandle handle, uint64_t agent, uint64_t sequence) {
  const auto found = failures_.find({handle, agent});
  if (found == failures_.end() || sequence < found->second.sequence) return;
  failures_.erase(found);
  if (!isFailing(handle)) --entries_;
  maybeForgetUndone(handle);
  publishFrom(handle);
}

size_t EntryFailures::agentDel(uint64_t agent) {
  const size_t before = failures_.size();
  for (auto next = failures_.begin(); next != failures_.end();) {
    const auto one = next++;
    const auto [handle, reporter] = one->first;
    if (reporter != agent) continue;
    failures_.erase(one);
    if (!isFailing(handle)) --entries_;
    maybeForgetUndone(handle);
  }
  if (failures_.size() < before) publishFrom(0);
  return before - failures_.size();
}

void EntryFailures::undoneIs(EntryHandle handle, std::string text, uint64_t sequence) {
  undoneDel(handle);
  if (undone_.size() == mostUndone) undoneDel(undone_.begin()->first);
  undone_[handle] = {std::move(text), sequence};
  notProgrammedYet_.emplace(sequence, handle);
}

const EntryFailures::Undone* EntryFailures::undone(EntryHandle handle) const {
  const auto found = undone_.find(handle);
  return found == undone_.end() ? nullptr : &found->second;
}

void EntryFailures::removedIs(EntryHandle handle, uint64_t sequence) {
  const Undone* entry = undone(handle);
  if (entry && sequence >= entry->sequence && !isFailing(handle)) undoneDel(handle);
}

// Each is looked at once: a removal that failed is forgotten when it is mended.
void EntryFailures::programmedUpToIs(uint64_t sequence) {
  programmedUpTo_ = sequence;
  while (!notProgrammedYet_.empty() && notProgrammedYet_.begin()->first <= sequence) {
    const EntryHandle handle = notProgrammedYet_.begin()->second;
    notProgrammedYet_.erase(notProgrammedYet_.begin());
    maybeForgetUndone(handle);
  }
}

void EntryFailures::maybeForgetUndone(EntryHandle handle) { removedIs(handle, programmedUpTo_); }

void EntryFailures::undoneDel(EntryHandle handle) {
  const auto found = undone_.find(handle);
  if (found == undone_.end()) return;
  notProgrammedYet_.erase({found->second.sequence, handle});
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

void EntryFailures::notRestoredAre(const std::vector<std::string>& texts) {
  std::string lines;
  for (size_t i = 0; i < texts.size() && i < mostListed; ++i) {
    lines += (lines.empty() ? "" : "\n") + texts[i];
  }
  notRestoredIs(texts.size());
  notRestoredListIs(lines);
}

// A forwarding agent that is full fails a hundred thousand entries in a row: a failure behind the
// listed ones must cost nothing.
void EntryFailures::publishFrom(EntryHandle handle) {
  failedEntriesIs(entries_);
  if (listed_ == mostListed && handle > lastListed_) return;
  std::string lines;
  listed_ = 0;
  for (const auto& [of, failure] : failures_) {
    if (listed_ == mostListed) break;
    lines += (lines.empty() ? "" : "\n") + failure.text;
    lastListed_ = of.first;
    ++listed_;
  }
  listIs(lines);
}

}  // namespace P4Runtime
