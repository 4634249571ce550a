// The work that a sender's kernel has left to hardware, and that a virtual wire did not do:
// checksums, and cutting a long TCP or UDP packet into segments.
#pragma once

#include <cstddef>
#include <cstdint>

#include "forwarder/device/Frames.h"

namespace Forwarder {

// What the kernel tells of a frame, before its first byte (struct virtio_net_hdr, host byte order).
struct OffloadHeader {
  uint8_t flags = 0;
  uint8_t kind = 0;             // of a frame to be cut; 0: none
  uint16_t headerBytes = 0;     // a hint
  uint16_t segmentBytes = 0;    // payload of a segment
  uint16_t checksumStart = 0;   // of the transport header, from the frame's first byte
  uint16_t checksumOffset = 0;  // of the field, from there
  bool checksumWanted() const { return flags & 1; }
  bool cutWanted() const { return kind != 0; }
};
static_assert(sizeof(OffloadHeader) == 10);

// Writes the checksum into its field, which holds the sum of the pseudo header. False: the frame is
// not as described, and stays as it is.
bool completeChecksum(const Frame& frame, const OffloadHeader& offloads);

// The segments of a long frame, complete with lengths, sequence numbers and checksums.
class Segments {
 public:
  // The frame stays as it is, and outlives the object.
  Segments(const Frame& whole, const OffloadHeader& offloads);
  // False: it cannot be cut, being not as described, or a packet within a tunnel's packet.
  bool valid() const { return valid_; }
  // Writes the next one; `to` has room for as many bytes as the whole frame has. Returns its size,
  // 0 when there are no more.
  size_t next(uint8_t* to);

 private:
  bool findHeaders(const OffloadHeader& offloads);
  void fixNetwork(uint8_t* to, size_t size) const;
  void fixTransport(uint8_t* to, size_t size, bool last) const;

  const Frame whole_;
  bool valid_ = false;
  bool tcp_ = false;
  bool version6_ = false;
  size_t network_ = 0;  // where headers begin
  size_t transport_ = 0;
  size_t payload_ = 0;
  size_t segmentBytes_ = 0;
  size_t at_ = 0;        // of the payload not yet written
  uint32_t number_ = 0;  // of the next segment
};

}  // namespace Forwarder
