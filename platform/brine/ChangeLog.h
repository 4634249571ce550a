// The writer's changes: of the open transaction, and of commits that wait for their outcome. It
// also keeps the former versions of records, as long as a follower may read them.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "platform/brine/Layout.h"
#include "platform/brine/SlotSpace.h"
#include "platform/brine/StoreFile.h"

namespace Brine {

// A change that is not settled, as the writer remembers it.
struct LoggedChange {
  uint64_t owner = 0;
  Ref now = 0;
  Ref before = 0;
  uint32_t table = 0;
  uint32_t flags = 0;  // of RingEntry
  // Of a change that took a former version up again: its words until then, to take that back.
  bool isUndo = false;
  uint64_t formerBegin = 0;
  uint64_t formerEnd = 0;
};

// Only the writer has one.
class ChangeLog {
 public:
  ChangeLog(StoreFile& file, SlotSpace& slots);

  uint64_t committed() const { return committed_; }
  uint64_t settled() const { return settled_; }
  uint64_t trimmed() const { return trimmed_; }
  uint64_t first() const { return first_; }  // of the changes that are remembered
  uint64_t next() const { return first_ + changes_.size(); }
  bool anyOpen() const { return next() > committed_ + 1; }  // changes that are not committed

  // The change with that sequence number, from first() to next() - 1.
  LoggedChange& at(uint64_t sequence) { return changes_[sequence - first_]; }
  const LoggedChange& at(uint64_t sequence) const { return changes_[sequence - first_]; }
  bool isOpen(uint64_t sequence) const { return sequence > committed_; }

  // Appends it under the number next(), for followers too.
  void add(const LoggedChange& change);
  // Empties an open change: followers pass over its number. A withdrawn one never was; else a later
  // one stands for it.
  enum class Void { replaced, withdrawn };
  void voidIs(uint64_t sequence, Void why);
  void commit();
  // Forgets the changes that are not committed. Their numbers are never another's: it leaves as
  // many that say nothing, to be committed.
  void dropOpen();
  void settle();

  // For a writer that starts. The changes that wait for their outcome, as the ring tells them, so
  // that they can be undone; `isUsable` looks at one. Call before any change is added.
  void recallUnsettled(const std::function<bool(const RingEntry&)>& isUsable);
  // A version that nobody sees any more since the change `end`:
  void deadIs(Ref ref, uint64_t end) { dead_.push_back({ref, end}); }
  // Releases the slots of changes that were not committed. A former version that was being taken
  // up again becomes a former version once more. May leave changes as dropOpen() does.
  void abandon(const std::vector<Ref>& open);
  // Forgets the versions and changes of a table whose slots are about to go, and has followers pass
  // over them. Followers would find other records in the slots. After the next opening the slots
  // have no memory: a follower's read would take memory again, or end the process without any.
  void forgetTable(uint32_t table);
  // Releases dead versions: those up to `sequence`, and all but `atMost` of the others. False when
  // there was none.
  bool trim(uint64_t sequence, size_t atMost);

 private:
  struct Dead {
    Ref ref;
    uint64_t end;
  };
  void trimmedIs(uint64_t sequence);
  void becomeFormerAgain(Ref ref, uint64_t end);
  void sayNothingUpTo(uint64_t sequence);
  static void sayNothing(RingEntry& entry, Void why = Void::replaced);

  StoreFile& file_;
  SlotSpace& slots_;
  uint64_t committed_;
  uint64_t settled_;
  uint64_t trimmed_;
  uint64_t first_;
  std::vector<LoggedChange> changes_;
  std::deque<Dead> dead_;  // ascending `end`
};

}  // namespace Brine
