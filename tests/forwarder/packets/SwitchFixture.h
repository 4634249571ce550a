// A switch in a network namespace of the test's own, whose program lets a frame choose its port.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "forwarder/device/PortSocket.h"
#include "forwarder/packets/PacketThread.h"
#include "tests/p4/Playing.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"
#include "tests/support/Waiting.h"

namespace Forwarder {

// The low nine bits of the destination address are the port to which a frame goes.
inline std::string addressedProgram() {
  using namespace P4Test;
  SmallProgram program;
  program.header("ethernet", {{"high", 39}, {"port", 9}, {"source", 48}, {"type", 16}});
  program.state("start", list({extract("ethernet")}));
  program.ingressAction(assign(metadata("egress_spec"), field("ethernet", "port")));
  program.deparse({"ethernet"});
  return program.json();
}

// A frame for a port: an Ethernet header, and bytes that count up from `first`.
inline std::string frameTo(uint32_t port, size_t size = 60, uint8_t first = 0) {
  std::string frame{'\2', 0, 0, 0, static_cast<char>(port >> 8), static_cast<char>(port)};
  frame += std::string("\2\0\0\0\0\x63\x88\xb5", 8);
  while (frame.size() < size) frame += static_cast<char>(first++);
  return frame;
}

// The far end of a port: keeps the frames that come, VLAN tags included.
class Host {
 public:
  explicit Host(const std::string& device)
      : sender_(device), receiver_(device), thread_([this] { receive(); }) {}
  ~Host() {
    stop_ = true;
    thread_.join();
  }

  bool send(const std::string& frame) { return sender_.send(frame); }
  std::vector<std::string> frames() const {
    const std::lock_guard lock(mutex_);
    return frames_;
  }
  size_t count() const {
    const std::lock_guard lock(mutex_);
    return frames_.size();
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    frames_.clear();
  }

 private:
  void receive() {
    FrameBatch batch;
    std::array<Frame, FrameBatch::count> frames;
    uint64_t tooLong = 0;
    while (!stop_) {
      pollfd readable{receiver_.descriptor(), POLLIN, 0};
      poll(&readable, 1, 10);
      const size_t count = receiver_.receive(batch, frames, &tooLong);
      const std::lock_guard lock(mutex_);
      for (size_t i = 0; i < count; ++i) {
        frames_.emplace_back(frames[i].start, frames[i].start + frames[i].size);
      }
    }
  }

  mutable std::mutex mutex_;
  std::vector<std::string> frames_;
  TestSupport::PacketEndpoint sender_;
  PortSocket receiver_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class SwitchTest : public testing::Test {
 protected:
  static constexpr uint32_t cpuPort = 510;

  static void SetUpTestSuite() {
    static const std::string refusal = TestSupport::enteredNetworkNamespace();
    refusal_ = refusal;
  }
  void SetUp() override {
    if (!refusal_.empty()) GTEST_SKIP() << refusal_;
  }

  void start(PacketOptions options = {}) {
    PacketSinks sinks;
    sinks.portState = [this](uint32_t port, bool up) {
      const std::lock_guard lock(mutex_);
      states_[port].push_back(up);
    };
    sinks.log = [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      log_ += line + "\n";
    };
    packets_ = std::make_unique<PacketThread>(slot_, std::move(options), std::move(sinks));
    packets_->start();
  }
  void push() { slot_.engineIs(std::make_shared<P4::Engine>(addressedProgram())); }
  void portsAre(const std::map<uint32_t, std::string>& devices) {
    packets_->portsAre(devices);
    for (const auto& [port, device] : devices) {
      ASSERT_TRUE(TestSupport::waitUntil([&] { return report(port).up; })) << log();
    }
  }

  PortReport report(uint32_t port) const {
    for (PortReport& one : packets_->ports()) {
      if (one.port == port) return one;
    }
    return {};
  }
  std::vector<bool> states(uint32_t port) const {
    const std::lock_guard lock(mutex_);
    const auto found = states_.find(port);
    return found == states_.end() ? std::vector<bool>() : found->second;
  }
  std::string log() const {
    const std::lock_guard lock(mutex_);
    return log_;
  }

  EngineSlot slot_;

 private:
  static inline std::string refusal_;
  mutable std::mutex mutex_;
  std::map<uint32_t, std::vector<bool>> states_;
  std::string log_;

 protected:
  std::unique_ptr<PacketThread> packets_;  // ends before all that it calls
};

}  // namespace Forwarder
