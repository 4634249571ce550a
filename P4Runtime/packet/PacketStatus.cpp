#include "P4Runtime/packet/PacketStatus.h"

#include <fmt/format.h>

namespace P4Runtime {
namespace {

std::string cpuDeviceText(const CpuPktSm& sm) {
  if (sm.netdevInitialized()) {
    const auto device = sm.kernelNetInfoStatus()->device(sm.netdevName());
    return sm.netdevName() + (device && device->adminUp() ? ": open" : ": open, but down");
  }
  const bool present = sm.kernelNetInfoStatus()->device(sm.netdevName()) != nullptr;
  return sm.netdevName() + (present ? ": cannot be opened" : ": not there");
}

std::string fieldLines(const P4ControllerPktMetadataEntry::Ptr& header) {
  std::string lines;
  if (!header) return lines;
  if (!header->wireFields().empty()) lines = "packed";
  for (const auto& field : header->wireFields()) {
    lines += fmt::format("\n{} {} {}", field.id, field.name, field.bitwidth);
  }
  if (!lines.empty()) return lines;
  for (const auto& [id, field] : header->metadataField()) {
    lines += fmt::format("{}{} {} {}", lines.empty() ? "" : "\n", id, field.name, field.bitwidth);
  }
  return lines;
}

}  // namespace

void PacketStatus::updateIn(const CpuPktSm& sm) {
  cpuDeviceIs(cpuDeviceText(sm));
  inIs(sm.counts().received);
  inDroppedMissedIs(sm.counts().missed);
  inDroppedRefusedIs(sm.counts().refused);
  inDroppedNoDeviceIs(sm.counts().droppedNoDevice);
}

void PacketStatus::updateOut(const ControllerTxPktConfig& queue,
                             const ControllerTxPktStatus& status) {
  outWaitingIs(queue.txPktDesc().size() + queue.held());
  outRefusedQueueFullIs(queue.refusedFull());
  outRefusedMemoryIs(queue.refusedMemory());
  outRefusedHeaderIs(queue.refusedHeader());
  outIs(status.sent());
  outDroppedNoPacketIs(status.noPacket());
  outDroppedNoMappingIs(status.noMapping());
  outDroppedNoPamIs(status.noPam());
  outDroppedDeviceDownIs(status.deviceDown());
  outDroppedTooLongIs(status.tooLong());
  outDroppedFailedIs(status.failed());
  lastTroubleIs(status.lastTrouble());
}

void PacketStatus::updateServer(const PIGrpcServerPacketCounts_t& counts) {
  inToControllersIs(counts.in);
  inDroppedNoPrimaryIs(counts.in_no_primary);
  inDroppedSlowControllerIs(counts.in_slow);
  inDroppedMalformedIs(counts.in_malformed);
  outFromControllersIs(counts.out);
  outRefusedNotPrimaryIs(counts.out_not_primary);
  outRefusedMetadataIs(counts.out_bad_metadata);
  // The server also counts the packets that the queue refused, a moment later.
  const uint64_t byQueue = outRefusedQueueFull() + outRefusedMemory() + outRefusedHeader();
  if (counts.out_refused > byQueue + outRefusedNoPipeline()) {
    outRefusedNoPipelineIs(counts.out_refused - byQueue);
  }
}

void PacketMetadataStatus::metadataIs(const P4ControllerPktMetadata& metadata) {
  packetInIs(fieldLines(metadata.metadataEntry("packet_in")));
  packetOutIs(fieldLines(metadata.metadataEntry("packet_out")));
}

}  // namespace P4Runtime
