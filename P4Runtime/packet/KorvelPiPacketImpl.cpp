// The packet entry point of the PI target interface: from a controller's packet to the queue.
#include <cstring>
#include <exception>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/pi.h"
#include "PI/target/pi_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/wirra/packets/PacketManager.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

constexpr uint32_t portField = 1;
constexpr uint32_t portFieldBytes = 4;
constexpr uint32_t submitToIngressField = 2;
constexpr uint32_t submitToIngressFieldBytes = 1;

bool fieldHasSize(const P4ControllerPktMetadataEntry& header, uint32_t id, uint32_t bytes) {
  const uint32_t size = header.metadataField(id).sizeInBytes();
  if (header.metadataFieldHas(id) && size == bytes) return true;
  SCRIVEL_TRACE(1, "_pi_packetout_send", " packet_out metadata field ", id, " size of ", size,
                " bytes is not expected ");
  return false;
}

// The running pipeline's packet_out header; null, traced, when it is not as we read it.
P4ControllerPktMetadataEntry::Ptr packetOutHeader(const P4ControllerPktMetadata* metadata) {
  const auto header = metadata ? metadata->metadataEntry("packet_out") : nullptr;
  if (!header) {
    SCRIVEL_TRACE(1, "_pi_packetout_send", " packet_out metadata not present");
    return nullptr;
  }
  if (header->metadataField().size() != 2) {
    SCRIVEL_TRACE(1, "_pi_packetout_send", " packet_out metadata has ",
                  header->metadataField().size(), "fields.", " expecting only 2 ");
    return nullptr;
  }
  const bool fits = fieldHasSize(*header, portField, portFieldBytes) &&
                    fieldHasSize(*header, submitToIngressField, submitToIngressFieldBytes);
  return fits ? header : nullptr;
}

uint32_t bigEndian32(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

pi_status_t queuePacket(ControllerTxPktConfig& queue, const P4ControllerPktMetadata* metadata,
                        const uint8_t* bytes, size_t size) {
  const auto refuseHeader = [&queue] {
    queue.refusedHeaderIs(queue.refusedHeader() + 1);
    return PI_STATUS_PACKETOUT_SEND_ERROR;
  };
  const auto header = packetOutHeader(metadata);
  if (!header) return refuseHeader();
  const uint64_t metadataSize = header->metadataEntryFieldsBytes();
  if (size < metadataSize) {
    SCRIVEL_TRACE(1, "_pi_packetout_send", " ", size, " bytes are shorter than the metadata");
    return refuseHeader();
  }
  ControllerTxPktDesc desc;
  desc.egressP4PortId = bigEndian32(bytes);
  desc.flags.ingressProcessingEnabledIs(bytes[portFieldBytes] != 0);
  SCRIVEL_TRACE(8, "_pi_packetout_send", "metadata size ", metadataSize, " Port Id ",
                desc.egressP4PortId, " submitToIngress ", desc.flags.ingressProcessingEnabled());
  desc.pkt = Wirra::ThePacketManager().packet(size - metadataSize);
  if (!desc.pkt) {
    SCRIVEL_TRACE(0, "_pi_packetout_send", " unable to allocate packet buffer ");
    queue.refusedMemoryIs(queue.refusedMemory() + 1);
    return PI_STATUS_ALLOC_ERROR;
  }
  if (size > metadataSize) std::memcpy(desc.pkt->head(), bytes + metadataSize, size - metadataSize);
  return queue.txPktDescEnq(desc) ? PI_STATUS_SUCCESS : PI_STATUS_PACKETOUT_SEND_ERROR;
}

}  // namespace
}  // namespace P4Runtime

using P4Runtime::trace;

extern "C" pi_status_t _pi_packetout_send(pi_dev_id_t dev_id, const char* pkt, size_t size) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(8, "_pi_packetout_send", " dev_id: ", dev_id,
                " pkt=", P4Runtime::stringRepOfBuffer(pkt, static_cast<uint32_t>(size)));
  const auto context = P4Runtime::ThePiContext();
  const auto queue = context->controllerTxPktConfig();
  if (!queue) return PI_STATUS_PACKETOUT_SEND_ERROR;
  try {
    return P4Runtime::queuePacket(*queue, context->p4ControllerPktMetadata().get(),
                                  reinterpret_cast<const uint8_t*>(pkt), size);
  } catch (const std::exception& e) {  // no memory for the descriptor; nothing is queued
    SCRIVEL_TRACE(0, "_pi_packetout_send", " unable to allocate packet buffer ", e.what());
    queue->refusedMemoryIs(queue->refusedMemory() + 1);
    return PI_STATUS_ALLOC_ERROR;
  }
}
