// The packet entry point of the PI target interface: from a controller's packet to the queue.
#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/pi.h"
#include "PI/target/pi_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/wirra/packets/PacketManager.h"
#include "platform/wirra/packets/ShortFrame.h"

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

// "egress_port" for "hdr.packet_out.egress-port".
std::string shortName(const std::string& name) {
  std::string last = name.substr(name.rfind('.') + 1);  // npos + 1 is 0: the whole
  std::ranges::replace(last, '-', '_');
  return last;
}

// A number of the bits from `at` on; the lowest 64 of them.
uint64_t bitsAt(const uint8_t* bytes, size_t at, size_t count) {
  uint64_t number = 0;
  for (; count > 0; --count, ++at) number = number << 1 | (bytes[at / 8] >> (7 - at % 8) & 1);
  return number;
}

// Of a header as the program has it on the wire, the parts that we decide by.
struct WireHeader {
  size_t bytes = 0;
  std::optional<uint64_t> port;
  bool submitsToIngress = false;
};

WireHeader wireHeader(const P4ControllerPktMetadataEntry& header, const uint8_t* bytes,
                      size_t size) {
  size_t bits = 0;
  for (const auto& field : header.wireFields()) bits += field.bitwidth;
  WireHeader result{.bytes = (bits + 7) / 8, .port = {}};
  if (size < result.bytes) return result;
  size_t at = 0;
  for (const auto& field : header.wireFields()) {
    const std::string name = shortName(field.name);
    const uint64_t value = bitsAt(bytes, at, field.bitwidth);
    if (name == "egress_port") result.port = value;
    if (name == "submit_to_ingress" || name == "do_forwarding") {
      result.submitsToIngress |= value != 0;
    }
    at += field.bitwidth;
  }
  return result;
}

pi_status_t queueCopy(ControllerTxPktConfig& queue, ControllerTxPktDesc desc, const uint8_t* bytes,
                      size_t size) {
  desc.pkt = Wirra::ThePacketManager().packet(size);
  if (!desc.pkt) {
    SCRIVEL_TRACE(0, "_pi_packetout_send", " unable to allocate packet buffer ");
    queue.refusedMemoryIs(queue.refusedMemory() + 1);
    return PI_STATUS_ALLOC_ERROR;
  }
  if (size > 0) std::memcpy(desc.pkt->head(), bytes, size);
  return queue.txPktDescEnq(desc) ? PI_STATUS_SUCCESS : PI_STATUS_PACKETOUT_SEND_ERROR;
}

pi_status_t queueForIngress(ControllerTxPktConfig& queue, const uint8_t* bytes, size_t size) {
  ControllerTxPktDesc desc;
  desc.flags.ingressProcessingEnabledIs(true);
  return queueCopy(queue, std::move(desc), bytes, size);
}

// A program may take packets of any length.
pi_status_t queueForProgram(ControllerTxPktConfig& queue, const uint8_t* bytes, size_t size) {
  if (!Wirra::needsShortFrameMark({bytes, size})) return queueForIngress(queue, bytes, size);
  std::vector<uint8_t> marked(Wirra::shortFrameMark.begin(), Wirra::shortFrameMark.end());
  marked.insert(marked.end(), bytes, bytes + size);
  return queueForIngress(queue, marked.data(), marked.size());
}

// The port of a header that names one, unless the packet is for the pipeline, is ours to serve.
// All else is the forwarding plane's: it gets the packet with its header.
std::optional<pi_status_t> maybeQueueWirePacket(ControllerTxPktConfig& queue,
                                                const P4ControllerPktMetadata* metadata,
                                                const uint8_t* bytes, size_t size) {
  const auto header = metadata ? metadata->metadataEntry("packet_out") : nullptr;
  if (!header || header->wireFields().empty()) return std::nullopt;
  const WireHeader wire = wireHeader(*header, bytes, size);
  if (size < wire.bytes) {
    queue.refusedHeaderIs(queue.refusedHeader() + 1);
    return PI_STATUS_PACKETOUT_SEND_ERROR;
  }
  if (wire.submitsToIngress || !wire.port || *wire.port > UINT32_MAX) {
    return queueForIngress(queue, bytes, size);
  }
  ControllerTxPktDesc desc;
  desc.egressP4PortId = static_cast<uint32_t>(*wire.port);
  return queueCopy(queue, std::move(desc), bytes + wire.bytes, size - wire.bytes);
}

pi_status_t queuePacket(ControllerTxPktConfig& queue, const P4ControllerPktMetadata* metadata,
                        const uint8_t* bytes, size_t size) {
  const auto refuseHeader = [&queue] {
    queue.refusedHeaderIs(queue.refusedHeader() + 1);
    return PI_STATUS_PACKETOUT_SEND_ERROR;
  };
  if (queue.allToProgram()) return queueForProgram(queue, bytes, size);
  if (const auto queued = maybeQueueWirePacket(queue, metadata, bytes, size)) return *queued;
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
  return queueCopy(queue, std::move(desc), bytes + metadataSize, size - metadataSize);
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
