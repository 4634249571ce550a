// Reads the frames of one kernel device from memory that is shared with the kernel.
#pragma once

#include <cstdint>
#include <memory>

#include "forwarder/device/Frames.h"
#include "forwarder/device/Offloads.h"
#include "platform/vela/Descriptors.h"

namespace Forwarder {

// Bound to a device by its index; it outlives times when the device is down. Holds some two
// thousand frames for a reader that is late. Promiscuous. Threads: one at a time.
class PacketRing {
 public:
  enum class Way {
    arriving,  // frames that the device has received
    leaving,   // frames that this host sends out of the device
  };

  struct Arrival {
    Frame frame;               // four bytes before it are free
    OffloadHeader offloads;    // work to be done, before the tag is put back
    bool cutShort = false;     // the frame's end is missing
    bool tagged = false;       // a VLAN tag has been taken off
    uint16_t tagProtocol = 0;  // 0: unknown
    uint16_t tag = 0;
    uint32_t seconds = 0;  // of the time of day
    uint32_t nanoseconds = 0;
  };

  // `mtuBytes` is a hint: longer frames take another, slower way. Throws std::system_error: no such
  // device, no permission, no memory.
  PacketRing(unsigned ifIndex, unsigned mtuBytes, Way way);
  PacketRing(const PacketRing&) = delete;
  PacketRing& operator=(const PacketRing&) = delete;

  int descriptor() const { return descriptor_.get(); }  // readable when there are frames
  unsigned ifIndex() const { return ifIndex_; }
  bool ready() const;
  // The oldest frame that was not returned yet; false when there is none. Its bytes may be changed,
  // and last until the next call.
  bool next(Arrival& arrival);
  uint64_t takeMissed();  // frames for which there was no room since the last call
  void clearError();      // of a device that went down: the descriptor would stay readable

 private:
  struct Unmap {
    void operator()(uint8_t* memory) const;
  };
  struct Layout {
    uint32_t slotBytes = 0;
    uint32_t slots = 0;
    uint32_t slotsOfBlock = 0;
  };
  static Layout layoutFor(unsigned mtuBytes);
  void doMap();
  uint8_t* slot() const {
    return memory_.get() + at_ / layout_.slotsOfBlock * size_t{blockBytes} +
           at_ % layout_.slotsOfBlock * size_t{layout_.slotBytes};
  }
  void doReturnSlot();
  void readLong(Arrival& arrival, size_t size);

  static constexpr uint32_t blockBytes = 1 << 16;

  const unsigned ifIndex_;
  const Layout layout_;
  Vela::UniqueFd descriptor_;
  std::unique_ptr<uint8_t, Unmap> memory_;
  uint32_t at_ = 0;
  bool taken_ = false;               // the slot's frame was returned by next()
  std::unique_ptr<uint8_t[]> long_;  // the newest frame that did not fit a slot
};

}  // namespace Forwarder
