// A packet: its bytes, as they stand on the wire without preamble and checksum.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/vela/Ptr.h"

namespace Wirra {

class PacketManager;

// Made by the packet manager, which counts its bytes until it dies. Its maker may write to it until
// it is handed on; after that it is only read.
class Packet final : public Vela::RefCounted {
 public:
  using Ptr = Vela::Ptr<Packet>;
  ~Packet() override;

  uint8_t* head() { return head_.get(); }
  std::span<const uint8_t> bytes() const { return {head_.get(), size_}; }
  size_t size() const { return size_; }
  void sizeIs(size_t size);  // shorter than it was made; a larger one is cut to that

 private:
  friend class PacketManager;
  // `liveBytes`: of all packets.
  Packet(std::atomic<size_t>& liveBytes, std::unique_ptr<uint8_t[]> head, size_t size);
  std::atomic<size_t>& liveBytes_;
  const std::unique_ptr<uint8_t[]> head_;
  size_t size_;
  const size_t capacity_;
};

}  // namespace Wirra
