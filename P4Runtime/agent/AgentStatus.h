// The agent's own status, for operators.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/status/agent"; brought up to date twice a second, on the reactor. Call with the
// activity lock held. Nothing throws. The agent and the state database share it.
class AgentStatus : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::AgentStatus"; }

  VELA_READONLY_ATTRIBUTE(int64_t, pid, 0)
  VELA_READONLY_ATTRIBUTE(uint32_t, deviceId, 0)
  VELA_READONLY_ATTRIBUTE(std::string, serverAddress, "")
  VELA_READONLY_ATTRIBUTE(std::string, serverSecurity, "")  // in words, then trouble, one a line
  VELA_READONLY_ATTRIBUTE(bool, serverListens, false)       // also without a pipeline
  VELA_READONLY_ATTRIBUTE(bool, serverReady, false)
  VELA_READONLY_ATTRIBUTE(std::string, pipelineFile, "")
  VELA_READONLY_ATTRIBUTE(std::string, pipelineState, "")
  VELA_READONLY_ATTRIBUTE(std::string, permissionLevel, "")  // in words
  VELA_READONLY_ATTRIBUTE(std::string, tables, "")           // "name entries/size", one a line
  VELA_READONLY_ATTRIBUTE(std::string, plugins, "")          // "name state", one a line
  VELA_READONLY_ATTRIBUTE(std::string, queries, "")          // how each is kept, one a line
  VELA_READONLY_ATTRIBUTE(std::string, subscribers, "")      // forwarding agents, one a line
  VELA_READONLY_ATTRIBUTE(uint64_t, forwardingAgents, 0)     // how many are attached
  VELA_READONLY_ATTRIBUTE(bool, pretendsProgramming, false)  // nothing is verified
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsAccepted, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsDropped, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsOnNoRow, 0)  // failures of rows that do not stand
  VELA_READONLY_ATTRIBUTE(uint64_t, doorbellMessagesDropped, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, failedEntries, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, stateDirectoryBytes, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, electionIdsNotKept, 0)  // a restart would forget them
  VELA_READONLY_ATTRIBUTE(uint64_t, connectionsRefused, 0)  // since the server started
  VELA_READONLY_ATTRIBUTE(std::string, store, "")           // whether it was begun empty, and why
  VELA_READONLY_ATTRIBUTE(std::string, restoring, "")       // how far; "": no restore runs
};

}  // namespace P4Runtime
