// A packet on its way through the switch.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace P4 {

// What a program asked for; carried out at the end of the pipeline. The last request of a kind
// counts.
struct Requests {
  bool clone = false;
  uint16_t session = 0;
  uint16_t cloneList = 0;
  uint16_t digestList = 0;       // 0: none
  uint16_t resubmitList = 0;     // 0: none
  uint16_t recirculateList = 0;  // 0: none
};

struct Packet {
  std::unique_ptr<uint64_t[]> state;  // slots and header bytes, see compile/FieldPlace.h
  const uint8_t* data = nullptr;      // as received; never changed
  uint32_t size = 0;
  uint32_t parsed = 0;         // bytes in front of the payload
  uint32_t runningLength = 0;  // as `packet_length` tells it
  uint32_t ingressLength = 0;  // as counters count it
  uint32_t ingressPort = 0;
  uint32_t egressPort = 0;
  uint32_t queue = 0;
  uint32_t passes = 0;  // resubmissions, recirculations and clones before
  uint32_t truncateTo = 0xffffffff;
  uint32_t parserError = 0;
  bool checksumError = false;
  bool exit = false;
  uint64_t receivedAt = 0;  // microseconds
  Requests requests;
};

// Packets for reuse, so that none is allocated on the way.
class PacketPool {
 public:
  explicit PacketPool(size_t stateWords) : stateWords_(stateWords) {}

  Packet* take() {
    if (free_.empty()) {
      all_.push_back(std::make_unique<Packet>());
      all_.back()->state = std::make_unique<uint64_t[]>(stateWords_);
      free_.push_back(all_.back().get());
    }
    Packet* packet = free_.back();
    free_.pop_back();
    return packet;
  }
  void give(Packet* packet) { free_.push_back(packet); }

 private:
  size_t stateWords_;
  std::vector<std::unique_ptr<Packet>> all_;
  std::vector<Packet*> free_;
};

}  // namespace P4
