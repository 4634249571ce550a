// The commands of the control socket.
#pragma once

#include <cstdint>
#include <string_view>

#include "forwarder/base/Answer.h"
#include "forwarder/follow/ForwardingAgent.h"
#include "forwarder/packets/PacketThread.h"
#include "forwarder/punt/Punter.h"
#include "forwarder/traffic/Traffic.h"

namespace Forwarder {

// The parts of a forwarder that commands show and change.
struct CommandTargets {
  ForwardingAgent& agent;
  const ReportQueue& reports;
  bool attached = false;                // to an agent, for `stats`
  uint64_t sequence = 0;                // of the newest change received, for `stats`
  Traffic* traffic = nullptr;           // null: there is no such command
  Punter* punter = nullptr;             // likewise
  PacketThread* packets = nullptr;      // null: no program is executed
  const EngineSlot* engines = nullptr;  // likewise
};

// Carries out one command line, one of applyRule() or of these:
//   rules          the rules in force, as commands
//   dump [TABLE]   the rows held
//   stats          counters, a line each
//   traffic ...    synthetic packets: see TrafficCommand.h
//   punt ...       packets for the controller: see PuntCommand.h
//   ports, trace ..., pcap ..., program: the switch, see PacketCommand.h
//   help
// Call it in the thread that the targets belong to. Never throws CommandError: the answer refuses.
Answer runCommand(const CommandTargets& targets, std::string_view line);

}  // namespace Forwarder
