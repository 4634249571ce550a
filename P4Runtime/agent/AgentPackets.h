// Publishes the status of packets, and brings the CPU device up and down with the agent.
#pragma once

#include <vector>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/packet/P4RuntimeCpuPktSm.h"
#include "P4Runtime/packet/PacketStatus.h"
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "platform/orrery/Database.h"
#include "platform/vela/Timer.h"

namespace P4Runtime {

// Publishes "p4runtime/status/packets", "packet-out" and "packet-metadata", and takes the CPU
// device down when the agent is asked to exit: from then on nobody reads it, and the forwarding
// plane can tell. Runs on the reactor.
class AgentPackets final {
 public:
  struct Parts {
    Vela::Ptr<CpuPktSm> cpuPktSm;
    Vela::Ptr<ControllerTxPktStatus> txPktStatus;
    Vela::Ptr<P4TableInfoSm> tableInfoSm;
    Vela::Ptr<AgentConfig> agentConfig;
  };
  // Loop and database must outlive it.
  AgentPackets(Vela::ReactorLoop& loop, Orrery::Database& database, Parts parts);

 private:
  void handlePeriod();
  void handleExitRequested();
  const Parts parts_;
  const Vela::Ptr<PacketStatus> status_;
  const Vela::Ptr<PacketMetadataStatus> metadataStatus_;
  Vela::Timer timer_;
  std::vector<Vela::Observation> changes_;
};

}  // namespace P4Runtime
