// The configuration and status of the journal of Writes.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/config/journal". Call with the activity lock held.
class JournalConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::JournalConfig"; }

  // Of all files; the oldest make room. 0: there is no journal.
  VELA_ATTRIBUTE(uint32_t, sizeMib, 0)
  VELA_ATTRIBUTE(std::string, directory, "")  // of the files; "": "journal" in the state directory
};

// At "p4runtime/status/journal".
class JournalStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::JournalStatus"; }

  VELA_READONLY_ATTRIBUTE(std::string, directory, "")  // that is written; "": none
  VELA_READONLY_ATTRIBUTE(uint64_t, bytes, 0)          // of all files
  VELA_READONLY_ATTRIBUTE(uint64_t, lost, 0)           // records without room, since it was begun
  VELA_READONLY_ATTRIBUTE(std::string, trouble, "")    // why it is not written
};

}  // namespace P4Runtime
