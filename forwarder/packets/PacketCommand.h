// The switch's control commands. Each throws CommandError.
#pragma once

#include <string_view>

#include "forwarder/base/Answer.h"
#include "forwarder/packets/PacketThread.h"

namespace Forwarder {

// The ports: device, state, counts, and what is wrong.
Answer runPortsCommand(const PacketThread& packets, std::string_view words);

//   trace N [PORT] [for SECONDS]  the way of the next N packets
//   trace on [PORT]               keeps the ways of packets from now on
//   trace                         those kept since the last time
//   trace off
Answer runTraceCommand(PacketThread& packets, std::string_view words);

//   pcap PORT FILE [in|out]       writes the port's packets into the file
//   pcap PORT off
Answer runPcapCommand(PacketThread& packets, std::string_view words);

// `program [TABLE]`: the program in force, or one of its tables. In the thread that changes tables.
Answer runProgramCommand(const EngineSlot& engines, std::string_view words);

}  // namespace Forwarder
