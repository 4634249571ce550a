// A network namespace of the test's own, and changes of its devices.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/Timer.h"
#include "platform/wirra/devices/KernelNetInterfaceSm.h"
#include "platform/wirra/packets/PacketAccessManager.h"
#include "platform/wirra/packets/PacketManager.h"

namespace Wirra {

class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "network namespaces take root: not permitted";
    // Otherwise the kernel sends packets of its own.
    std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
  }
  void sh(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
  void ip(const std::string& command) { sh("ip " + command); }
  void pairIs(const std::string& one, const std::string& other, unsigned mtu = 9000) {
    const std::string tail = " mtu " + std::to_string(mtu);
    ip("link add " + one + tail + " type veth peer name " + other + tail);
    upAre(one, other);
  }
  // A device takes packets, and loses them without a word, some time before it has its carrier.
  void upAre(const std::string& one, const std::string& other) {
    const auto devices = Vela::make<KernelNetInterfaceStatus>("status");
    const KernelNetInterfaceSm sm(loop, devices);
    ip("link set " + one + " up");
    ip("link set " + other + " up");
    until([&] { return devices->device(one)->operUp() && devices->device(other)->operUp(); });
  }

  // Runs the reactor until `condition` holds.
  void until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool held = false;
    Vela::Timer timer(loop, [&] {
      held = condition();
      if (held || std::chrono::steady_clock::now() > deadline) loop.stop();
    });
    timer.start(std::chrono::milliseconds(0), std::chrono::milliseconds(1));
    loop.run();
    ASSERT_TRUE(held);
  }
  // Runs the reactor's waiting work.
  void turn() {
    int turns = 0;
    until([&] { return ++turns == 3; });
  }

  Vela::ReactorLoop loop;
};

// A packet of `size` bytes that begins with an Ethernet header; every byte depends on `number`.
inline Packet::Ptr packetOf(size_t size, unsigned number = 0) {
  static const uint8_t header[] = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 0x88, 0xb5};
  Packet::Ptr packet = ThePacketManager().packet(size);
  for (size_t i = 0; i < size; ++i) {
    packet->head()[i] =
        i < sizeof header ? header[i] : static_cast<uint8_t>(number >> 8 * (i % 3) ^ i);
  }
  return packet;
}

inline std::string bytesOf(const Packet::Ptr& packet) {
  return {reinterpret_cast<const char*>(packet->bytes().data()), packet->size()};
}

// One end of a wire: sends, and keeps the packets that come.
struct Port {
  Port(Vela::ReactorLoop& loop, const std::string& device,
       PacketAccessManager::Mode mode = PacketAccessManager::Mode::receiveAndSend)
      : packets(Vela::make<PacketAccessManager>(loop, device, mode)) {
    packets->onPacketsIs([this] {
      ++wakeups;
      packets->packets(1000, &came);
    });
  }
  std::vector<SendResult> send(const std::vector<Packet::Ptr>& batch) {
    std::vector<SendResult> results;
    packets->send(batch, &results);
    return results;
  }

  PacketAccessManager::Ptr packets;
  std::vector<Packet::Ptr> came;
  unsigned wakeups = 0;
};

}  // namespace Wirra
