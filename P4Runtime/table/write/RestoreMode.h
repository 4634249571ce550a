// How a restore changes the rules for writes.
#pragma once

#include <absl/container/flat_hash_set.h>

#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

// While a restore runs, its writes need no verification and no room by the size limits, and
// rows with direct meters or counters stay as they are. Call with the activity lock held.
class RestoreMode {
 public:
  // While one is needed and does not run, nothing may be written.
  bool isNeeded() const { return needed_; }
  void neededIs(bool needed) { needed_ = needed; }
  bool isRunning() const { return running_; }
  // A restore runs while it lives.
  class Running;

  // The restore must write the entry's row, even over another one.
  void rewrite(EntryHandle handle) { rewritten_.insert(handle); }
  bool isRewritten(EntryHandle handle) const { return rewritten_.contains(handle); }
  void rewriteDelAll() { rewritten_.clear(); }

 private:
  bool needed_ = false;
  bool running_ = false;
  absl::flat_hash_set<EntryHandle> rewritten_;
};

class RestoreMode::Running {
 public:
  explicit Running(RestoreMode& mode) : mode_(mode) { mode_.running_ = true; }
  ~Running() { mode_.running_ = false; }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  RestoreMode& mode_;
};

}  // namespace P4Runtime
