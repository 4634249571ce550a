// The packet thread's work on packets: from the ports through the engine to the ports.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "forwarder/packets/EngineSlot.h"
#include "forwarder/packets/PacketThread.h"
#include "forwarder/packets/SwitchPorts.h"
#include "forwarder/packets/TraceBook.h"
#include "p4/TraceText.h"

namespace Forwarder {

// Threads: the packet thread, but for toNoPort(). Lifetime: all that the constructor gets outlives
// it.
class PacketLoop {
 public:
  PacketLoop(EngineSlot& slot, SwitchPorts& ports, TraceBook& traces, const PacketSinks& sinks);
  ~PacketLoop();

  // Takes some packets of each port, if there are any; returns whether there were.
  bool turn();
  // The ports that it knows may have gone.
  void handlePortsChange();
  void handOverDigests();
  const P4::Engine* engine() const { return engine_.get(); }
  uint64_t toNoPort() const { return toNoPort_.load(std::memory_order_relaxed); }
  bool takeTraceDone() { return std::exchange(traceDone_, false); }

 private:
  void takeEngine();
  bool serve(SwitchPort& port);
  void handleArrival(SwitchPort& port, PacketRing::Arrival& arrival);
  void handleSegments(SwitchPort& port, const PacketRing::Arrival& arrival);
  void handleFrame(SwitchPort& port, Frame frame, const PacketRing::Arrival& arrival);
  void process(const SwitchPort& port, const Frame& frame);
  void processTraced(const SwitchPort& port, const Frame& frame);
  void sendOutputs();

  EngineSlot& slot_;
  SwitchPorts& ports_;
  TraceBook& traces_;
  const PacketSinks& sinks_;
  std::shared_ptr<P4::Engine> engine_;
  std::optional<P4::TraceText> traceText_;
  P4::Outputs outputs_;
  std::vector<SwitchPort*> sending_;  // those with frames to send
  std::unique_ptr<uint8_t[]> segment_;
  uint64_t now_ = 0;  // of the burst
  uint64_t received_ = 0, receivedBytes_ = 0;
  uint64_t tracedPackets_ = 0;
  bool traceDone_ = false;
  std::atomic<uint64_t> toNoPort_{0};
};

}  // namespace Forwarder
