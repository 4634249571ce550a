#include "forwarder/packets/PacketLoop.h"

#include <fmt/format.h>

#include <utility>

#include "forwarder/device/Offloads.h"
#include "forwarder/device/VlanTag.h"
#include "platform/wirra/packets/ShortFrame.h"

namespace Forwarder {
namespace {

constexpr size_t burst = 64;         // frames of a port at a time
constexpr size_t mostOutputs = 256;  // frames that wait until they are sent
constexpr size_t segmentBytes = 1 << 17;
constexpr size_t tagBytes = 4;

}  // namespace

PacketLoop::PacketLoop(EngineSlot& slot, SwitchPorts& ports, TraceBook& traces,
                       const PacketSinks& sinks)
    : slot_(slot),
      ports_(ports),
      traces_(traces),
      sinks_(sinks),
      segment_(new uint8_t[segmentBytes]) {}

PacketLoop::~PacketLoop() = default;

void PacketLoop::takeEngine() {
  if (!slot_.take(engine_)) return;
  traceText_.reset();
  if (engine_) traceText_.emplace(engine_->program());
}

bool PacketLoop::turn() {
  takeEngine();
  bool any = false;
  for (SwitchPort* port : ports_.all()) {
    if (!serve(*port)) continue;
    any = true;
    if (outputs_.size() >= mostOutputs) sendOutputs();
  }
  sendOutputs();
  return any;
}

// Tables that have changed meanwhile wait for the end of the burst: it must not wait for anything.
bool PacketLoop::serve(SwitchPort& port) {
  PacketRing* const ring = port.ring();
  if (!ring || !ring->ready()) return false;
  received_ = receivedBytes_ = 0;
  now_ = PacketThread::now();
  if (engine_) engine_->begin();
  PacketRing::Arrival arrival;
  for (size_t i = 0; i < burst && ring->next(arrival); ++i) handleArrival(port, arrival);
  if (engine_) engine_->end();
  port.counts()->addReceived(received_, receivedBytes_);
  port.emptyQueue();
  return true;
}

void PacketLoop::handleArrival(SwitchPort& port, PacketRing::Arrival& arrival) {
  if (arrival.cutShort) {  // there was no room for the rest of a long one
    port.counts()->addDropped(PacketDrop::missed);
  } else if (arrival.offloads.cutWanted()) {
    handleSegments(port, arrival);
  } else if (arrival.offloads.checksumWanted() &&
             !completeChecksum(arrival.frame, arrival.offloads)) {
    port.counts()->addDropped(PacketDrop::unreadable);
  } else {
    handleFrame(port, arrival.frame, arrival);
  }
}

void PacketLoop::handleSegments(SwitchPort& port, const PacketRing::Arrival& arrival) {
  Segments segments(arrival.frame, arrival.offloads);
  if (!segments.valid()) return port.counts()->addDropped(PacketDrop::unreadable);
  uint8_t* const start = segment_.get() + tagBytes;
  while (const size_t size = segments.next(start)) handleFrame(port, {start, size}, arrival);
}

void PacketLoop::handleFrame(SwitchPort& port, Frame frame, const PacketRing::Arrival& arrival) {
  if (arrival.tagged) putTagBack(frame, arrival.tagProtocol, arrival.tag);
  if (port.cpu() && Wirra::hasShortFrameMark({frame.start, frame.size})) {
    frame.start += Wirra::shortFrameMark.size();
    frame.size -= Wirra::shortFrameMark.size();
  }
  ++received_;
  receivedBytes_ += frame.size;
  if (PcapFile* const file = port.pcapIn()) {
    file->write({frame.start, frame.size}, {arrival.seconds, arrival.nanoseconds / 1000});
  }
  if (!engine_) return port.counts()->addDropped(PacketDrop::noProgram);
  if (traces_.active() && traces_.wants(port.id())) return processTraced(port, frame);
  process(port, frame);
}

void PacketLoop::process(const SwitchPort& port, const Frame& frame) {
  engine_->processNext(port.id(), {frame.start, frame.size}, now_, outputs_);
}

void PacketLoop::processTraced(const SwitchPort& port, const Frame& frame) {
  const size_t before = outputs_.size();
  engine_->traceIs(&*traceText_);
  process(port, frame);
  engine_->traceIs(nullptr);
  std::string text =
      fmt::format("packet {}: port {}, {} bytes\n", ++tracedPackets_, port.id(), frame.size);
  for (const std::string& line : traceText_->lines()) text += "  " + line + "\n";
  traceText_->clear();
  for (size_t i = before; i < outputs_.size(); ++i) {
    const P4::Outputs::Frame out = outputs_.frame(i);
    text += fmt::format("  out: port {}{}, {} bytes\n", out.port,
                        ports_.find(out.port) ? "" : ", which is not there", out.bytes.size());
  }
  if (before == outputs_.size()) text += "  out: nothing\n";
  traceDone_ |= traces_.add(port.id(), text);
}

void PacketLoop::sendOutputs() {
  for (size_t i = 0; i < outputs_.size(); ++i) {
    const P4::Outputs::Frame out = outputs_.frame(i);
    SwitchPort* const port = ports_.find(out.port);
    if (!port) {
      toNoPort_.fetch_add(1, std::memory_order_relaxed);
      continue;
    }
    if (!port->anyWaiting()) sending_.push_back(port);
    port->add({const_cast<uint8_t*>(out.bytes.data()), out.bytes.size()});
  }
  for (SwitchPort* port : sending_) port->send();
  sending_.clear();
  std::vector<P4::DigestList> digests = std::exchange(outputs_.digests, {});
  outputs_.clear();
  if (!digests.empty() && sinks_.digests) sinks_.digests(engine_, std::move(digests));
}

void PacketLoop::handOverDigests() {
  takeEngine();
  if (!engine_ || engine_->program().learnLists.empty()) return;
  engine_->digestsDue(PacketThread::now(), outputs_.digests);
  sendOutputs();
}

}  // namespace Forwarder
