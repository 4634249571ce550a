#include "P4Runtime/agent/AgentPackets.h"

#include <chrono>
#include <utility>

#include "P4Runtime/agent/Agent.h"

namespace P4Runtime {
namespace {

constexpr std::chrono::milliseconds statusPeriod(500);

}  // namespace

AgentPackets::AgentPackets(Vela::ReactorLoop& loop, Orrery::Database& database, Parts parts)
    : parts_(std::move(parts)),
      status_(Vela::make<PacketStatus>("packets")),
      metadataStatus_(Vela::make<PacketMetadataStatus>("packet-metadata")),
      timer_(loop, [this] { handlePeriod(); }) {
  database.entityIs("p4runtime/status/packets", status_);
  database.entityIs("p4runtime/status/packet-out", parts_.txPktStatus);
  database.entityIs("p4runtime/status/packet-metadata", metadataStatus_);
  const auto publish = [this] {
    metadataStatus_->metadataIs(parts_.tableInfoSm->controllerPktMetadata());
  };
  changes_.push_back(parts_.tableInfoSm->bitwidthsInitializedAttribute().observe(publish));
  changes_.push_back(
      parts_.agentConfig->exitRequestedAttribute().observe([this] { handleExitRequested(); }));
  const auto followToProgram = [this] {
    parts_.cpuPktSm->controllerTxPktConfig()->allToProgramIs(
        parts_.agentConfig->packetOutToProgram());
  };
  changes_.push_back(parts_.agentConfig->packetOutToProgramAttribute().observe(followToProgram));
  publish();
  followToProgram();
  timer_.start(std::chrono::milliseconds(0), statusPeriod);
}

void AgentPackets::handlePeriod() {
  const CpuPktSm& sm = *parts_.cpuPktSm;
  parts_.cpuPktSm->handlePeriod();
  status_->updateIn(sm);
  status_->updateOut(*sm.controllerTxPktConfig(), *parts_.txPktStatus);
  PIGrpcServerPacketCounts_t counts{};
  PIGrpcServerGetPacketCounts(sm.p4RtSystemConfig()->deviceId(), &counts);
  status_->updateServer(counts);
}

// An exit may be taken back.
void AgentPackets::handleExitRequested() {
  const CpuPktSm& sm = *parts_.cpuPktSm;
  if (!sm.kernelNetInfoStatus()->device(sm.netdevName())) return;
  if (parts_.agentConfig->exitRequested()) {
    (void)sm.controllerInterface()->bringDownIntf();
  } else {
    (void)sm.controllerInterface()->bringUpIntf();
  }
}

void Agent::doBuildPackets() {
  controllerInterfaceIs(
      controllerInterfaceFactory(bridgingConfig(), agentConfig()->cpuDevice().text()));
  controllerTxPktConfigIs(controllerTxPktConfigFactory());
  const auto txPktStatus = Vela::make<ControllerTxPktStatus>("controllerTxPktStatus");
  const auto root = runtime_.stateDatabase.entity("kni");
  cpuPktSmIs(cpuPktSmFactory(runtime_.loop,
                             {.kernelNetInfoRoot = dynamic_cast<Orrery::Directory*>(root.get()),
                              .kernelNetInfoStatus = kernelNetInterfaceStatus(),
                              .controllerInterface = controllerInterface(),
                              .controllerTxPktConfig = controllerTxPktConfig(),
                              .controllerTxPktStatus = txPktStatus,
                              .p4RtSystemConfig = p4RtSystemConfig(),
                              .p4RtPortMappingStatus = p4RtPortMappingStatus(),
                              .allIntfStatusDir = allIntfStatusDir(),
                              .allIntfStatusLocalDir = allIntfStatusLocalDir(),
                              .batchStatus = batchStatus()}));
  packets_ = std::make_unique<AgentPackets>(
      runtime_.loop, runtime_.stateDatabase,
      AgentPackets::Parts{cpuPktSm(), txPktStatus, p4TableInfoSm(), agentConfig()});
  piContext()->controllerTxPktConfigIs(controllerTxPktConfig());
  piContext()->p4ControllerPktMetadataIs(p4ControllerPktMetadata());
}

}  // namespace P4Runtime
