// Tells what a packet meets on its way.
#pragma once

#include <cstdint>
#include <string>

#include "p4/match/Entry.h"

namespace P4 {

// Called by the thread that processes the packet, and only for packets that are traced. Positions
// are those of the program's objects.
class Trace {
 public:
  virtual ~Trace() = default;
  virtual void onParserState(uint32_t /*state*/) {}
  virtual void onParserError(uint32_t /*error*/) {}
  // `key` is the packet's, as the table's KeyShape says, and lasts for the call. `entry` is null on
  // a miss; `action` then is the default action. Null: no action.
  virtual void onTable(uint32_t /*table*/, const uint64_t* /*key*/, const Entry* /*entry*/,
                       const ActionData* /*action*/) {}
  virtual void onLog(const std::string& /*message*/) {}
  virtual void onEvent(const char* /*event*/, uint32_t /*number*/) {}  // "egress", 3; or `absent`
};

}  // namespace P4
