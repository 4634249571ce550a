// Failures that forwarding agents reported when no batch was waiting for them (after a restart, in
// a snapshot, for a constant entry, of the removal of entries that were taken back). They stand
// until the entry is programmed or deleted, or the forwarding agent that reported them has left.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/companion/ResourceId.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/status/failures". A failure belongs to an entry and to the forwarding agent,
// `agent`, that reported it on the change `sequence`.
// Call with the activity lock held. Nothing throws. The agent and the state database share it.
class EntryFailures : public Vela::Entity {
 public:
  explicit EntryFailures(std::string name) : Entity(std::move(name)) {}
  const char* typeName() const override { return "P4Runtime::EntryFailures"; }

  static constexpr size_t mostListed = 1000;
  static constexpr size_t mostUndone = 10000;

  VELA_READONLY_ATTRIBUTE(uint64_t, failedEntries, 0)
  // The failures with table and key, one a line; the first thousand of them.
  VELA_READONLY_ATTRIBUTE(std::string, list, "")
  // Failures that were reported on a row, or a change of it, that does not stand; they are not
  // listed.
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsOnNoRow, 0)
  // Objects that the last start or pipeline change found and could not restore, and why: one a
  // line; the first thousand of them.
  VELA_READONLY_ATTRIBUTE(uint64_t, notRestored, 0)
  VELA_READONLY_ATTRIBUTE(std::string, notRestoredList, "")

 public:
  // False if this failure is already recorded, or the agent has said something later.
  bool failureIs(EntryHandle handle, uint64_t agent, uint64_t sequence, std::string text);
  void failureDel(EntryHandle handle);  // of all agents, if there is any
  void failureDelAll();                 // all entries are gone
  // The agent has programmed the change, and with it every earlier one of the entry.
  void programmedIs(EntryHandle handle, uint64_t agent, uint64_t sequence);
  size_t agentDel(uint64_t agent);  // it has left; returns the number of its failures
  bool empty() const { return failures_.empty(); }
  bool isFailing(EntryHandle handle) const;  // for any agent
  void countReportOnNoRow() { reportsOnNoRowIs(reportsOnNoRow() + 1); }
  void notRestoredAre(const std::vector<std::string>& texts);

  // A new entry was taken back by the change `sequence`, and has no handle any more; `text` names
  // it. The newest ones are remembered as long as their removal may fail.
  struct Undone {
    std::string text;
    uint64_t sequence = 0;
  };
  void undoneIs(EntryHandle handle, std::string text, uint64_t sequence);
  const Undone* undone(EntryHandle handle) const;  // null: was not taken back
  // All forwarding agents have programmed the change `sequence` of the handle.
  void removedIs(EntryHandle handle, uint64_t sequence);
  // They have programmed all changes up to `sequence`, but for those whose failure they reported
  // before.
  void programmedUpToIs(uint64_t sequence);
  // Whether the removal of any has failed. Its failure ends once an entry of the same text is
  // programmed.
  bool anyUnremoved() const { return !unremoved_.empty(); }
  void programmedIs(const std::string& text);
  // The forwarding agents all hold the tables as of `sequence`, or later.
  void inStepIs(uint64_t sequence);

 private:
  struct Failure {
    uint64_t sequence = 0;
    std::string text;
  };
  using Failures = std::map<std::pair<EntryHandle, uint64_t>, Failure>;  // by entry and agent
  Failures::iterator firstOf(EntryHandle handle) { return failures_.lower_bound({handle, 0}); }
  void undoneDel(EntryHandle handle);
  void maybeForgetUndone(EntryHandle handle);
  void publishFrom(EntryHandle handle);

  Failures failures_;
  uint64_t entries_ = 0;  // in failures_
  std::map<EntryHandle, Undone> undone_;
  std::set<std::pair<uint64_t, EntryHandle>> notProgrammedYet_;  // of these, by sequence
  uint64_t programmedUpTo_ = 0;
  std::map<std::string, EntryHandle> unremoved_;  // by text
  size_t listed_ = 0;
  EntryHandle lastListed_ = 0;
};

}  // namespace P4Runtime
