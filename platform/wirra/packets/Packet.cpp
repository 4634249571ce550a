#include "platform/wirra/packets/Packet.h"

#include <algorithm>
#include <utility>

#include "platform/wirra/packets/PacketManager.h"

namespace Wirra {

Packet::Packet(PacketManager& manager, std::unique_ptr<uint8_t[]> head, size_t size)
    : manager_(manager), head_(std::move(head)), size_(size), capacity_(size) {}

Packet::~Packet() { manager_.bytes_.fetch_sub(capacity_, std::memory_order_relaxed); }

void Packet::sizeIs(size_t size) { size_ = std::min(size, capacity_); }

}  // namespace Wirra
