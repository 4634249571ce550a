#include "forwarder/packets/SwitchPort.h"

#include <system_error>
#include <utility>

#include "forwarder/device/KernelDevice.h"
#include "platform/wirra/packets/ShortFrame.h"

namespace Forwarder {

SwitchPort::SwitchPort(uint32_t id, std::string device, Kind kind)
    : id_(id), device_(std::move(device)) {
  if (kind == Kind::cpu) {
    cpu_.emplace(device_, CpuDevice::Kind::any, SendSocket::WhenFull::drop);
  }
}

PortReport SwitchPort::report() const {
  PortReport report{
      .port = id_, .device = device_, .up = up_, .cpu = cpu(), .trouble = trouble_, .counts = {}};
  for (const auto& file : {pcapIn_, pcapOut_}) {
    if (!file || (file == pcapOut_ && pcapIn_ == pcapOut_ && !report.pcap.empty())) continue;
    report.pcap += (report.pcap.empty() ? "" : " ") + file->path();
    if (!file->trouble().empty()) report.trouble = file->trouble();
  }
  return report;
}

bool SwitchPort::deviceIs(const Wirra::Link* link) {
  up_ = link && link->operUp;
  if (ring_ && link && link->index == ring_->ifIndex() && trouble_.empty()) return false;
  const bool wasOpen = ring_ != nullptr;
  doClose();
  if (!link) {
    trouble_ = "there is no device " + device_;
    return wasOpen;
  }
  try {
    trouble_.clear();
    doOpen(*link);
    return true;
  } catch (const std::system_error& e) {
    doClose();
    up_ = false;
    trouble_ = deviceTrouble("open", device_, e.code());
    return wasOpen;
  }
}

// What the agent sends to the CPU port leaves the host by the TAP; of a veth pair, we hold the end
// at which it arrives.
void SwitchPort::doOpen(const Wirra::Link& link) {
  auto way = PacketRing::Way::arriving;
  if (cpu_) {
    cpu_->maybeOpen();
    if (cpu_->tap()) way = PacketRing::Way::leaving;
    trouble_ = cpu_->trouble();
  } else {
    sender_ = std::make_unique<SendSocket>(link.index, SendSocket::WhenFull::drop);
  }
  ring_ = std::make_unique<PacketRing>(link.index, link.mtu, way);
}

void SwitchPort::doClose() {
  countMissed();
  ring_.reset();
  sender_.reset();
  if (cpu_) cpu_->maybeOpen();
}

void SwitchPort::countMissed() {
  if (!ring_) return;
  counts_->addDropped(PacketDrop::missed, ring_->takeMissed());
}

void SwitchPort::send() {
  if (pcapOut_) {
    const PcapTime time = pcapTimeNow();
    for (const Frame& frame : waiting_) pcapOut_->write({frame.start, frame.size}, time);
  }
  SendCounts sent{.noDevice = waiting_.size()};
  if (cpu_) {
    markShortFrames();
    sent = cpu_->send(waiting_);
    marked_.clear();
  } else if (sender_) {
    sent = sender_->send(waiting_);
  }
  counts_->addSent(sent.sent, sent.sentBytes);
  counts_->addDropped(PacketDrop::deviceDown, sent.noDevice);
  counts_->addDropped(PacketDrop::tooLong, sent.tooLong);
  counts_->addDropped(PacketDrop::deviceFull, sent.full);
  counts_->addDropped(PacketDrop::refused, sent.refused);
  waiting_.clear();
}

void SwitchPort::markShortFrames() {
  for (Frame& frame : waiting_) {
    if (!Wirra::needsShortFrameMark({frame.start, frame.size})) continue;
    std::vector<uint8_t>& marked =
        marked_.emplace_back(Wirra::shortFrameMark.begin(), Wirra::shortFrameMark.end());
    marked.insert(marked.end(), frame.start, frame.start + frame.size);
    frame = {marked.data(), marked.size()};
  }
}

bool SwitchPort::flushPcap() {
  bool trouble = false;
  for (const auto& file : {pcapIn_, pcapOut_}) {
    if (!file) continue;
    file->flush();
    trouble |= !file->trouble().empty();
  }
  return std::exchange(pcapTroubleTold_, trouble) != trouble;
}

}  // namespace Forwarder
