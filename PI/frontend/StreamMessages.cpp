// Messages of controllers on their streams, and the packets that the target punts.
#include <new>

#include "PI/core/PacketCounts.h"
#include "PI/core/PlainText.h"
#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/base/Permission.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/base/StatusText.h"
#include "PI/pi.h"

namespace pi::fe::proto {

namespace {

constexpr size_t kShownBytes = 128;  // of a controller's own text in a message

// The target says "not sent" both of a header that it cannot use and of a full queue. It refuses
// every packet of a pipeline whose header it cannot use, and only a queue of its packets gets full.
[[noreturn]] void refuseUnsent(pi_dev_id_t deviceId, bool hasTakenPackets,
                               const PacketHeader& header) {
  if (hasTakenPackets) {
    refuse(code::resourceExhausted, "device ", deviceId,
           " has too many packets waiting to be sent; send this one again, more slowly");
  }
  if (!header.isDeclared) {
    refuse(code::failedPrecondition, "device ", deviceId, " sends no packets: the pipeline has no ",
           header.name, " header that says where to; add one to the program");
  }
  refuse(code::failedPrecondition, "device ", deviceId, " cannot use the pipeline's ", header.name,
         " header; declare its fields as this switch wants them");
}

[[noreturn]] void refuseSend(pi_dev_id_t deviceId, pi_status_t status, bool hasTakenPackets,
                             const PacketHeader& header) {
  switch (status) {
    case PI_STATUS_PACKETOUT_SEND_ERROR:
      refuseUnsent(deviceId, hasTakenPackets, header);
    case PI_STATUS_ALLOC_ERROR:
      refuse(code::resourceExhausted, "device ", deviceId,
             " has no memory for the packet; send it again later");
    case PI_STATUS_NOT_IMPLEMENTED_BY_TARGET:
      refuse(code::unimplemented, "device ", deviceId, " does not send packets");
    default:
      refuse(code::internal, "device ", deviceId, " did not send the packet: PI status ",
             static_cast<int>(status));
  }
}

bool hasDigest(const p4::config::v1::P4Info& p4Info, uint32_t id) {
  for (const auto& digest : p4Info.digests()) {
    if (digest.preamble().id() == id) return true;
  }
  return false;
}

// Takes packets of devices without a front end: a target takes a packet without a receiver for a
// broken switch.
void dropPacketIn(pi_dev_id_t deviceId, const char*, size_t, void*) {
  core::packetCountsOf(deviceId).inNoPrimary.add();
}

void takePacketIn(pi_dev_id_t, const char* packet, size_t size, void* cookie) {
  static_cast<DeviceMgrImp*>(cookie)->packetIn({packet, size});
}

}  // namespace

void DeviceMgrImp::packetInCbIs() {
  pi_packetin_register_default_cb(&dropPacketIn, nullptr);
  pi_packetin_register_cb(deviceId_, &takePacketIn, this);
}

void DeviceMgrImp::packetInCbDel() { pi_packetin_deregister_cb(deviceId_); }

DeviceMgrImp::Status DeviceMgrImp::streamMessage(
    const p4::v1::StreamMessageRequest& request) const {
  return statusOf([&] {
    switch (request.update_case()) {
      case p4::v1::StreamMessageRequest::kPacket:
        doSend(request.packet());
        return okStatus();
      case p4::v1::StreamMessageRequest::kDigestAck:
        doAcknowledge(request.digest_ack());
        return okStatus();
      case p4::v1::StreamMessageRequest::kOther:
        refuse(code::unimplemented, "device ", deviceId_, ": stream messages of the type ",
               core::plainText(request.other().type_url(), kShownBytes), " are not supported");
      default:
        refuse(code::invalidArgument, "the stream message asks for nothing");
    }
  });
}

// Takes neither the write mutex nor the store's: packets go out while a Write waits. They also do
// while Writes are refused in the critical state, since an operator who wants to bring the switch
// back needs the controller's protocols to run.
void DeviceMgrImp::doSend(const p4::v1::PacketOut& packet) const {
  requirePacketPermission();
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current == nullptr) {
    refuse(code::failedPrecondition, "No forwarding pipeline config on device ", deviceId_, " yet");
  }
  const std::string bytes = current->packetHeaders().packetOut(packet);
  const pi_status_t status = pi_packetout_send(deviceId_, bytes.data(), bytes.size());
  if (status != PI_STATUS_SUCCESS) {
    refuseSend(deviceId_, status, current->hasSentPackets(), current->packetHeaders().out());
  }
  current->hasSentPacketsIs();
}

// A list that nobody waits for any more is no error.
void DeviceMgrImp::doAcknowledge(const p4::v1::DigestListAck& ack) const {
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current != nullptr && !hasDigest(current->config().p4info(), ack.digest_id())) {
    refuse(code::invalidArgument, "the digest_ack is for ",
           current->index().objectText(ack.digest_id()), "; it is no digest");
  }
  const bool isKept =
      current != nullptr && current->index().entity(EntityKind::digest, ack.digest_id()) != nullptr;
  if (!isKept) refuse(code::unimplemented, "device ", deviceId_, ": digests are not supported");
  digests_.handleAck(ack.digest_id(), ack.list_id());
}

void DeviceMgrImp::streamResponseCbIs(DeviceMgr::StreamMessageResponseCb cb, void* cookie) {
  auto shared = std::make_shared<const DeviceMgr::StreamMessageResponseCb>(std::move(cb));
  const std::lock_guard lock(mutex_);
  streamResponseCb_ = std::move(shared);
  streamResponseCookie_ = cookie;
}

bool DeviceMgrImp::sendToPrimaries(p4::v1::StreamMessageResponse* response) const {
  std::shared_ptr<const DeviceMgr::StreamMessageResponseCb> cb;
  void* cookie = nullptr;
  {
    const std::lock_guard lock(mutex_);
    cb = streamResponseCb_;
    cookie = streamResponseCookie_;
  }
  if (cb == nullptr || !*cb) return false;
  (*cb)(deviceId_, response, cookie);
  return true;
}

// The target holds its lock: this waits for nothing but look-ups.
void DeviceMgrImp::packetIn(std::string_view received) const {
  const std::shared_ptr<Pipeline> current = pipeline();
  try {
    p4::v1::StreamMessageResponse response;
    std::string fault =
        current == nullptr ? "no pipeline says how packets come"
                           : current->packetHeaders().packetIn(received, response.mutable_packet());
    if (!fault.empty()) return packetCounts_.malformed(std::move(fault));
    if (!sendToPrimaries(&response)) packetCounts_.inNoPrimary.add();
  } catch (const std::bad_alloc&) {
    packetCounts_.inSlow.add();  // memory is full of messages that controllers have not read
  }
}

}  // namespace pi::fe::proto
