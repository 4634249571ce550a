// Packets between controllers and the switch's devices: from the CPU device to the PI library, and
// from the packet-out queue to the interfaces that P4 ports mean.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/PortMapping.h"
#include "P4Runtime/packet/AddDesiredIntfSm.h"
#include "P4Runtime/packet/ControllerInterface.h"
#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/packet/ControllerTxPktStatus.h"
#include "P4Runtime/packet/IntfStatusManager.h"
#include "P4Runtime/packet/P4RuntimeCpuPktMgr.h"
#include "P4Runtime/packet/PacketInPace.h"
#include "P4Runtime/packet/PacketTransmitter.h"
#include "platform/vela/Timer.h"
#include "platform/wirra/interfaces/InterfaceStatus.h"

namespace P4Runtime {

// The entities that packet access depends on.
struct CpuPktInputs {
  Vela::Ptr<const Orrery::Directory> kernelNetInfoRoot;
  Vela::Ptr<const Wirra::KernelNetInterfaceStatus> kernelNetInfoStatus;
  Vela::Ptr<ControllerInterface> controllerInterface;
  Vela::Ptr<ControllerTxPktConfig> controllerTxPktConfig;
  Vela::Ptr<ControllerTxPktStatus> controllerTxPktStatus;
  Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig;
  Vela::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus;
  Vela::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir;
  Vela::Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  Vela::Ptr<const BatchStatus> batchStatus;  // tells of Writes; null: none come (tests)
};

// Packets since the agent began.
struct CpuPktCounts {
  uint64_t received = 0;         // from the CPU device
  uint64_t droppedNoDevice = 0;  // the PI library has no device whose controllers could get them
  uint64_t missed = 0;           // the kernel had no room to keep them for us
  uint64_t refused = 0;          // no memory for them, or too long
};

// A packet for ingress processing leaves by the CPU device and ignores its egress port: at the
// other end of that device is the forwarding plane's CPU port. It leaves as the controller gave it,
// without its metadata. Without a CPU device it is dropped.
//
// Threads: the reactor, with the activity lock held. Errors: nothing throws; dropped packets are
// counted by reason; a PI status other than success or "no receiver" is an assertion. Lifetime:
// shares its inputs; the loop outlives it.
class CpuPktSm final : public Vela::Entity, private TxWays {
 public:
  using Ptr = Wirra::Packet::Ptr;

  // The loop must outlive it.
  CpuPktSm(Vela::ReactorLoop& loop, CpuPktInputs inputs);
  ~CpuPktSm() override;
  const char* typeName() const override { return "P4Runtime::CpuPktSm"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Orrery::Directory>, kernelNetInfoRoot, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Wirra::KernelNetInterfaceStatus>, kernelNetInfoStatus,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ControllerInterface>, controllerInterface, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ControllerTxPktConfig>, controllerTxPktConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig>, p4RtSystemConfig,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::PortMappingStatus>,
                          p4RtPortMappingStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllIntfStatusDir>, allIntfStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllIntfStatusLocalDir>, allIntfStatusLocalDir,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(std::string, netdevName, "")
  VELA_READONLY_ATTRIBUTE(Wirra::PacketAccessManager::Ptr, netdevPam, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, netdevInitialized, false)
  VELA_READONLY_ATTRIBUTE(uint64_t, pktDeqCount, 0)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, desiredIntfDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, deviceIntfStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<PamCollection>, pamCollection, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<AddDesiredIntfSm>, addDesiredIntfSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<IntfStatusManager>, intfStatusManagerRoot, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeCpuPktMgr>, pamMan, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)

 public:
  // The CPU device has packets to read. The event repeats while any are left; while Writes come,
  // after a pause (PacketInPace.h).
  void handlePktEvent();
  void handleKernelDevice(const std::string& name);
  void handleTxPktDesc();
  // Aborts when the library does not take the packet.
  void processPkt(const Ptr& pkt);
  // Retries opens that the system refused, and reads the kernel's counters.
  void handlePeriod();
  const CpuPktCounts& counts() const { return counts_; }

 private:
  void handleInitialized();
  void handleWays();
  void doInitializePamMan();
  void doEnablePam();
  void doDisablePam();
  void doBringUp();
  void updateCounts();
  void readPackets();
  void pausePackets(std::chrono::milliseconds pause);
  void watchPackets();

  Way processTxPktDesc(const ControllerTxPktDesc& desc) override;
  void send(const std::string& intf, std::span<const Ptr> packets,
            std::vector<Wirra::SendResult>* results) override;
  std::string trouble(const std::string& intf) const override;
  Wirra::PacketAccessManager::Ptr pamOf(const std::string& intf) const;

  Vela::ReactorLoop& loop_;
  const Vela::Ptr<ControllerTxPktStatus> txPktStatus_;
  const Vela::Ptr<const BatchStatus> batchStatus_;
  std::unique_ptr<PacketTransmitter> transmitter_;
  std::vector<Ptr> batch_;
  PacketInPace pace_;
  Vela::Timer pauseTimer_;
  CpuPktCounts counts_;
  CpuPktCounts ofFormerPams_;  // missed and refused
  std::vector<Vela::Observation> changes_;
};

Vela::Ptr<CpuPktSm> cpuPktSmFactory(Vela::ReactorLoop& loop, CpuPktInputs inputs);

}  // namespace P4Runtime
