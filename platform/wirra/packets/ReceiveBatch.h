// Reads many packets of an AF_PACKET socket at once.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace Wirra {

// A packet as it came: the kernel takes a VLAN tag out of the bytes and reports it beside them, and
// leaves out checksums that hardware would compute.
struct Frame {
  std::span<const uint8_t> bytes;  // valid until the batch reads again
  bool tooLong = false;            // `bytes` are its beginning only
  bool tagged = false;
  bool checksumMissing = false;
  uint8_t tag[4] = {};  // as on the wire

  size_t wireSize() const { return bytes.size() + (tagged ? sizeof tag : 0); }
  void copyTo(uint8_t* wire) const;  // wireSize() bytes
};

// One thread at a time.
class ReceiveBatch final {
 public:
  static constexpr size_t mostFrames = 64;
  static constexpr size_t mostBytes = 64 << 10;  // of a packet

  ReceiveBatch();
  // Reads at most `most` packets that wait in the socket, without waiting for any. Negative: an
  // error, in errno; EAGAIN when no packet waits.
  int read(int descriptor, size_t most);
  Frame frame(size_t number) const;  // of the last read()

 private:
  struct Slot {
    iovec bytes;
    alignas(cmsghdr) char control[64];
  };
  const std::unique_ptr<uint8_t[]> buffer_;
  Slot slots_[mostFrames];
  mmsghdr messages_[mostFrames];
};

}  // namespace Wirra
