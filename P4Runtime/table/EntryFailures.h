// Failures that forwarding agents reported when no batch was waiting for them (after a restart, in
// a snapshot, for a constant entry, of the removal of what was taken back). They stand until the
// entry is programmed or deleted.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/companion/ResourceId.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/status/failures". Used with the activity lock held.
class EntryFailures : public Vela::Entity {
 public:
  explicit EntryFailures(std::string name) : Entity(std::move(name)) {}
  const char* typeName() const override { return "P4Runtime::EntryFailures"; }

  static constexpr size_t mostListed = 1000;
  static constexpr size_t mostUndone = 10000;

  VELA_READONLY_ATTRIBUTE(uint64_t, failedEntries, 0)
  // The entries with table and key, one a line; the first thousand of them.
  VELA_READONLY_ATTRIBUTE(std::string, list, "")

 public:
  void failureIs(EntryHandle handle, std::string text);
  void failureDel(EntryHandle handle);  // nothing when there is none
  bool empty() const { return texts_.empty(); }

  // A new entry was taken back by the change `sequence`, and has no handle any more; `text` says
  // which. The newest ones are remembered, as long as their removal may fail.
  void undoneIs(EntryHandle handle, std::string text, uint64_t sequence);
  void undoneDel(EntryHandle handle);                   // it was removed
  const std::string* undone(EntryHandle handle) const;  // null: it is none
  // Whether the removal of any has failed. Once an entry of the same text is programmed, nothing is
  // left of the former.
  bool anyUnremoved() const { return !unremoved_.empty(); }
  void programmedIs(const std::string& text);
  // All forwarding agents hold just what stood in the tables at `sequence`, or later.
  void inStepIs(uint64_t sequence);

 private:
  struct Undone {
    std::string text;
    uint64_t sequence = 0;
  };
  void publishFrom(EntryHandle handle);
  std::map<EntryHandle, std::string> texts_;
  std::map<EntryHandle, Undone> undone_;
  std::map<std::string, EntryHandle> unremoved_;  // by text
  size_t listed_ = 0;
  EntryHandle lastListed_ = 0;
};

}  // namespace P4Runtime
