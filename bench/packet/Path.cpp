// See Path.h.
#include "bench/packet/Path.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "tests/support/MarkedPacket.h"

namespace Bench {
namespace {

using TestSupport::Window;

constexpr size_t batch = 32;
constexpr size_t headBytes = 46;  // of a marked packet: what tells it from others

}  // namespace

// Packets of an earlier measurement may still come, so each has a mark of its own, and the window
// is set after the packet, by which the receiver knows whom to tell.
void Path::begin(size_t bytes, Window& window) {
  window_ = nullptr;
  packet_ = TestSupport::markedPacket({.stream = ++stream_}, bytes);
  window_ = &window;
}

void Path::take(Window& window) {
  if (window.take()) return;
  window_ = nullptr;
  throw std::runtime_error("packets got lost; is the machine overloaded?");
}

void Path::arrived(std::string_view packet) {
  Window* const window = window_;
  if (!window || packet.size() != packet_.size() ||
      packet.substr(0, headBytes) != std::string_view(packet_).substr(0, headBytes)) {
    return;
  }
  lastArrival_ = Clock::now();
  window->give();
}

double Path::rate(size_t packets) {
  Window window(packetWindow);
  begin(packet_.size(), window);
  std::array<std::string_view, batch> same;
  same.fill(packet_);
  const auto start = Clock::now();
  for (size_t sent = 0; sent < packets;) {
    take(window);
    size_t count = 1;
    while (count < std::min(batch, packets - sent) && window.maybeTake()) ++count;
    send({same.data(), count});
    sent += count;
  }
  for (ptrdiff_t i = 0; i < packetWindow; ++i) take(window);
  window_ = nullptr;
  const Duration taken = lastArrival_.load() - start;
  return static_cast<double>(packets) / (taken.count() / 1e6);
}

Duration Path::median(size_t alone) {
  Window window(0);
  begin(packet_.size(), window);
  const std::string_view packet = packet_;
  Samples samples;
  for (size_t i = 0; i < alone; ++i) {
    const auto start = Clock::now();
    send({&packet, 1});
    take(window);
    samples.add(lastArrival_.load() - start);
  }
  window_ = nullptr;
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
  Window window(0);
  begin(64, window);
  const std::string_view packet = packet_;
  const bool open = TestSupport::waitUntil([&] {
    send({&packet, 1});
    return window.maybeTake();
  });
  window_ = nullptr;
  if (!open) throw std::runtime_error("no packet gets through");
}

}  // namespace Bench
