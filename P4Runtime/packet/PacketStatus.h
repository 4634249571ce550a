// The status of packets, for operators and other processes.
#pragma once

#include <cstdint>
#include <string>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/packet/ControllerTxPktStatus.h"
#include "P4Runtime/packet/P4RuntimeCpuPktSm.h"
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"
#include "PI/proto/pi_server.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/status/packets"; packets since the agent began, brought up to date twice a second,
// on the reactor. Call with the activity lock held. Nothing throws. The agent and the state
// database share it. A packet that came in has gone to controllers or is counted in one inDropped,
// apart from those missed, which never came in; one from a controller is waiting, out, or in one
// outDropped.
class PacketStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::PacketStatus"; }

  VELA_READONLY_ATTRIBUTE(std::string, cpuDevice, "")      // "p4controller: open", and the like
  VELA_READONLY_ATTRIBUTE(uint64_t, in, 0)                 // received from the CPU device
  VELA_READONLY_ATTRIBUTE(uint64_t, inToControllers, 0)    // one a role that has a primary
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedMissed, 0)    // came faster than the agent reads
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedRefused, 0)   // no memory, or too long
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedNoDevice, 0)  // no pipeline runs yet
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedNoPrimary, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedSlowController, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, inDroppedMalformed, 0)  // not with the declared header
  VELA_READONLY_ATTRIBUTE(uint64_t, outFromControllers, 0)  // taken for sending
  VELA_READONLY_ATTRIBUTE(uint64_t, outWaiting, 0)          // now
  VELA_READONLY_ATTRIBUTE(uint64_t, out, 0)                 // sent
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedNotPrimary, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedMetadata, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedNoPipeline, 0)  // none runs, or the agent is disabled
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedQueueFull, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedMemory, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outRefusedHeader, 0)    // the agent cannot use the pipeline's
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedNoPacket, 0)  // a descriptor without one
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedNoMapping, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedNoPam, 0)  // no such device, or not allowed
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedDeviceDown, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedTooLong, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, outDroppedFailed, 0)
  VELA_READONLY_ATTRIBUTE(std::string, lastTrouble, "")  // of a packet that was dropped

 public:
  void updateIn(const CpuPktSm& sm);
  void updateOut(const ControllerTxPktConfig& queue, const ControllerTxPktStatus& status);
  void updateServer(const PIGrpcServerPacketCounts_t& counts);  // after updateOut()
};

// At "p4runtime/status/packet-metadata": the running pipeline's headers, for processes that read or
// write them. A line a field, in header order: "ID NAME BITWIDTH"; each field takes whole bytes. A
// line "packed" before them: the fields stand bit behind bit, filled up to whole bytes at the end.
// Empty: no header.
class PacketMetadataStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::PacketMetadataStatus"; }

  VELA_READONLY_ATTRIBUTE(std::string, packetIn, "")
  VELA_READONLY_ATTRIBUTE(std::string, packetOut, "")

 public:
  void metadataIs(const P4ControllerPktMetadata& metadata);
};

}  // namespace P4Runtime
