#include "platform/wirra/packets/Packet.h"

#include <algorithm>
#include <utility>

namespace Wirra {

Packet::Packet(std::atomic<size_t>& liveBytes, std::unique_ptr<uint8_t[]> head, size_t size)
    : liveBytes_(liveBytes), head_(std::move(head)), size_(size), capacity_(size) {}

Packet::~Packet() { liveBytes_.fetch_sub(capacity_, std::memory_order_relaxed); }

void Packet::sizeIs(size_t size) { size_ = std::min(size, capacity_); }

}  // namespace Wirra
