#include "platform/wirra/packets/PacketManager.h"

#include <memory>
#include <new>
#include <utility>

namespace Wirra {

Packet::Ptr PacketManager::packet(size_t size) {
  const size_t limit = byteLimit_.load(std::memory_order_relaxed);
  const size_t before = bytes_.fetch_add(size, std::memory_order_relaxed);
  // A full manager refuses empty packets, too: each costs memory beside its bytes.
  if (before < limit && size <= limit - before) {
    std::unique_ptr<uint8_t[]> head(new (std::nothrow) uint8_t[size]);
    if (head) {
      if (auto* made = new (std::nothrow) Packet(bytes_, std::move(head), size)) return {made};
    }
  }
  bytes_.fetch_sub(size, std::memory_order_relaxed);
  refused_.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

PacketManager& ThePacketManager() {
  static auto* manager = new PacketManager;  // outlives packets that static objects hold
  return *manager;
}

}  // namespace Wirra
