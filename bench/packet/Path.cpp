// See Path.h.
#include "bench/packet/Path.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "tests/support/MarkedPacket.h"
#include "tests/support/Waiting.h"

namespace Bench {
namespace {

constexpr size_t batch = 32;
constexpr size_t headBytes = 46;  // of a marked packet: its identity

}  // namespace

// Packets of an earlier measurement may still come, so each has a mark of its own.
void Path::begin(size_t bytes) {
  open_ = false;
  packet_ = TestSupport::markedPacket({.stream = ++stream_}, bytes);
  arrived_ = 0;
  awaited_ = 0;
  open_ = true;
}

void Path::arrived(std::string_view packet) {
  if (!open_ || packet.size() != packet_.size() ||
      packet.substr(0, headBytes) != std::string_view(packet_).substr(0, headBytes)) {
    return;
  }
  lastArrival_ = Clock::now();
  if (++arrived_ != awaited_) return;
  const std::lock_guard lock(mutex_);
  told_.notify_one();
}

bool Path::waitArrived(uint64_t count, std::chrono::milliseconds timeout) {
  if (arrived_ >= count) return true;
  awaited_ = count;
  std::unique_lock lock(mutex_);
  return told_.wait_for(lock, timeout, [&] { return arrived_ >= count; });
}

void Path::mustArrive(uint64_t count) {
  if (waitArrived(count, TestSupport::patience)) return;
  open_ = false;
  throw std::runtime_error("packets got lost; is the machine overloaded?");
}

double Path::rate(size_t packets) {
  begin(packet_.size());
  std::array<std::string_view, batch> same;
  same.fill(packet_);
  const auto start = Clock::now();
  for (uint64_t sent = 0; sent < packets;) {
    if (sent - arrived_ + batch > packetWindow) mustArrive(sent - packetWindow / 2);
    const size_t count = std::min<uint64_t>(batch, packets - sent);
    send({same.data(), count});
    sent += count;
  }
  mustArrive(packets);
  open_ = false;
  const Duration taken = lastArrival_.load() - start;
  return static_cast<double>(packets) / (taken.count() / 1e6);
}

Duration Path::median(size_t alone) {
  begin(packet_.size());
  const std::string_view packet = packet_;
  Samples samples;
  for (size_t i = 1; i <= alone; ++i) {
    const auto start = Clock::now();
    send({&packet, 1});
    mustArrive(i);
    samples.add(lastArrival_.load() - start);
  }
  open_ = false;
  return samples.median();
}

PathFigures Path::measured(size_t bytes, size_t packets, size_t alone) {
  packet_ = TestSupport::markedPacket({}, bytes);
  const size_t warmingUp = packets / 10;
  rate(warmingUp);
  return {.bytes = bytes,
          .packets = warmingUp + packets + alone,
          .perSecond = rate(packets),
          .median = median(alone)};
}

void Path::waitOpen() {
  begin(64);
  const std::string_view packet = packet_;
  const bool open = TestSupport::waitUntil([&] {
    send({&packet, 1});
    return arrived_ > 0;
  });
  open_ = false;
  if (!open) throw std::runtime_error("no packet gets through");
}

}  // namespace Bench
