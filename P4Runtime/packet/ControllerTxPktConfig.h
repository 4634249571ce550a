// The queue of packets that controllers want sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>

#include "P4Runtime/packet/ControllerTxPktDesc.h"
#include "P4Runtime/packet/KeyedQueue.h"

namespace P4Runtime {

// Threads of the server put descriptors in, the reactor takes them out; both with the activity lock
// held. Observe txPktDesc() to hear when it stops being empty.
class ControllerTxPktConfig final : public Vela::Entity {
 public:
  // Descriptors that wait for their turn or for their device, of all ports together.
  static constexpr size_t capacity = 4096;
  // The most of them that one lane may hold while its device takes no more.
  static constexpr size_t laneShare = 1024;

  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::ControllerTxPktConfig"; }

  // False, and counted in refusedFull(), when `capacity` descriptors wait, or the lane is crowded.
  bool txPktDescEnq(const ControllerTxPktDesc& desc);
  KeyedQueue<ControllerTxPktDesc>& txPktDesc() { return txPktDesc_; }
  const KeyedQueue<ControllerTxPktDesc>& txPktDesc() const { return txPktDesc_; }
  // Lanes that have used up their share; set by the consumer of the queue.
  void crowdedLanesAre(std::set<uint64_t> lanes) { crowdedLanes_ = std::move(lanes); }

  // Every packet, with its header, goes through the forwarding plane, whatever its header says.
  // Frames of any length go both ways then (ShortFrame.h).
  VELA_ATTRIBUTE(bool, allToProgram, false)

 private:
  std::set<uint64_t> crowdedLanes_;
  KeyedQueue<ControllerTxPktDesc> txPktDesc_{*this, "txPktDesc"};

  // Taken out, but waiting until their device has space; set by the consumer of the queue.
  VELA_READONLY_ATTRIBUTE(uint64_t, held, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, refusedFull, 0)
  // Packets lost for want of memory; counted by the producer.
  VELA_READONLY_ATTRIBUTE(uint64_t, refusedMemory, 0)
  // Packets without the header that the pipeline declares, or for which it declares none.
  VELA_READONLY_ATTRIBUTE(uint64_t, refusedHeader, 0)
};

Vela::Ptr<ControllerTxPktConfig> controllerTxPktConfigFactory();

}  // namespace P4Runtime
