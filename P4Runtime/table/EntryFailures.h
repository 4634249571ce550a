// Failures that forwarding agents reported when no batch was waiting for them (after a restart, in
// a snapshot, for a constant entry). They stand until the entry is programmed or deleted.
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

  VELA_READONLY_ATTRIBUTE(uint64_t, failedEntries, 0)
  // The entries with table and key, one a line; the first thousand of them.
  VELA_READONLY_ATTRIBUTE(std::string, list, "")

 public:
  void failureIs(EntryHandle handle, std::string text);
  void failureDel(EntryHandle handle);  // nothing when there is none
  bool empty() const { return texts_.empty(); }

 private:
  void publishFrom(EntryHandle handle);
  std::map<EntryHandle, std::string> texts_;
  size_t listed_ = 0;
  EntryHandle lastListed_ = 0;
};

}  // namespace P4Runtime
