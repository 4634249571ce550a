// The v1model switch: what happens to a packet from its receipt until nothing of it is left inside.
#pragma once

#include <array>
#include <vector>

#include "p4/compile/Image.h"
#include "p4/execute/Buffers.h"
#include "p4/execute/Machine.h"
#include "p4/execute/Outputs.h"
#include "p4/execute/Packet.h"

namespace P4 {

enum class DropReason : uint8_t {
  ingress,  // egress_spec is the drop port
  egress,
  noReplica,       // the multicast group is unknown or empty
  noQueue,         // the priority has no queue
  tooManySteps,    // the program went round in a pipeline
  tooManyPasses,   // resubmitted, recirculated or cloned without end
  tooManyPackets,  // one packet has made too many others
  tooLarge,        // more than 65,535 bytes
};
inline constexpr size_t dropReasons = 8;
const char* dropReasonName(DropReason reason);

struct SwitchCounts {
  uint64_t received = 0;
  uint64_t sent = 0;
  uint64_t resubmitted = 0;
  uint64_t recirculated = 0;
  uint64_t cloned = 0;
  uint64_t multicast = 0;       // copies
  uint64_t parserErrors = 0;    // such packets go on
  uint64_t checksumErrors = 0;  // such packets go on
  std::array<uint64_t, dropReasons> dropped{};
};

struct SwitchOptions {
  uint32_t priorityQueues = 1;  // a port
  uint64_t seed = 1;            // of the program's random numbers
};

// One thread. Packets wait nowhere: queues are empty when process() returns.
class Switch {
 public:
  Switch(const Image& image, ExternState& externs, const SwitchOptions& options);

  Machine& machine() { return machine_; }
  void traceIs(Trace* trace);
  std::vector<DigestBuffer>& digests() { return digests_; }  // by learn list
  const SwitchCounts& counts() const { return counts_; }

  // Time is in microseconds since the switch began. Outputs are added.
  void process(const Side& side, uint32_t port, std::span<const uint8_t> bytes, uint64_t now,
               Outputs& outputs);

 private:
  static constexpr uint32_t maxPasses = 1024;     // of one packet, one after the other
  static constexpr size_t maxMemory = 256 << 20;  // bytes, of all packets that come of one
  static constexpr size_t maxBytes = 65535;

  void runIngress(Packet* packet);
  void parse(Packet& packet);
  void afterIngress(Packet* packet, uint32_t lengthBefore);
  void cloneIngress(const Packet& packet, uint32_t lengthBefore);
  void learn(const Packet& packet);
  void resubmit(const Packet& packet, uint32_t lengthBefore);
  void multicast(Packet& packet, const std::vector<Replica>& replicas);
  void toSession(Packet* clone, const Session& session);
  void enqueue(Packet* packet, uint32_t port);

  Packet* nextOfEgress();
  void runEgress(Packet* packet);
  void setEgressMetadata(Packet& packet);
  uint64_t depthOf(const Packet& packet) const;
  void cloneEgress(const Packet& packet);
  void send(Packet& packet);
  void recirculate(const Packet& packet);

  Packet* take();
  Packet* copyOf(const Packet& packet);
  void drop(Packet* packet, DropReason reason);
  void clearState(Packet& packet) const;
  void clearMetadata(Packet& packet) const;
  void copyList(uint32_t id, const Packet& from, Packet& to) const;
  bool mayPassAgain(const Packet& packet);
  void event(const char* what, uint32_t number) const {
    if (trace_) trace_->onEvent(what, number);
  }

  const Image& image_;
  SwitchOptions options_;
  Machine machine_;
  PacketPool pool_;
  Buffers buffers_;
  std::vector<DigestBuffer> digests_;
  SwitchCounts counts_;
  Trace* trace_ = nullptr;
  uint32_t maxPackets_;  // that may come of one
  bool depthsWanted_;

  // Of the packet that is processed, and of all that it has become.
  const Side* side_ = nullptr;
  Outputs* outputs_ = nullptr;
  uint64_t now_ = 0;
  uint32_t packets_ = 0;
  std::vector<Packet*> ingress_;  // resubmitted and recirculated ones
  std::vector<Packet*> egress_;
  size_t ingressAt_ = 0;
  size_t egressAt_ = 0;
};

}  // namespace P4
