// A switch with links: its ports are veth devices, and the test sits at their far ends. Programs
// that use it run in a network namespace of their own, and skip their tests where that is not
// permitted.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "tests/e2e/Switch.h"
#include "tests/support/MarkedPacket.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"
#include "tests/support/Window.h"

// Packets on their way at once: fewer than the 4096 that wait at most in the agent, so that none is
// refused, and than the 1,000 that wait at most between the ends of a veth link.
constexpr ptrdiff_t packetWindow = 512;

class WiredSwitch : public Switch {
 public:
  struct Wiring {
    uint32_t ports = 1;       // 1, 2, ..., mapped to the links of these numbers
    uint32_t spareLinks = 0;  // with the next numbers, mapped to nothing
    bool cpuTap = false;  // made by the agent; else the test makes a veth link of the CPU device
    std::function<void(TestSupport::Pipeline&)> pipelineChange;
    // The forwarder executes the program that is pushed, with the CPU port 510, and punts nothing
    // of itself. Takes a cpuTap.
    bool forwards = false;
  };
  // `atFarEnd` is told each packet that leaves through a link, on a thread for each link;
  // `atController` each packet-in.
  using AtFarEnd = std::function<void(uint32_t link, std::span<const uint8_t> packet)>;
  using AtController = std::function<void(const p4::v1::PacketIn& packet)>;
  WiredSwitch(const Wiring& wiring, AtFarEnd atFarEnd, AtController atController = nullptr);

  bool start();  // and the forwarder punts from all ports, unless it forwards

  static std::string device(uint32_t link);  // that the agent has
  TestSupport::PacketEndpoint& farEnd(uint32_t link) { return *links_.at(link - 1).farEnd; }
  // The CPU device receives the packets written there.
  TestSupport::PacketEndpoint& cpuFarEnd() { return *cpu_->farEnd; }
  // Deletes the devices and makes new ones of the same names.
  void linkRemade(uint32_t link) { links_.at(link - 1).remade(); }
  void cpuLinkRemade() { cpu_->remade(); }

  // Of packets, by its name in `korvel status --json`.
  uint64_t count(const std::string& name) const;
  // All that say that packets got lost or were refused, with their names; "": none did.
  std::string drops() const;

 private:
  struct Link {
    Link(const std::string& near, const std::string& far,
         TestSupport::PacketEndpoint::Handler atFarEnd);
    void remade();

    TestSupport::VethPair pair;
    const TestSupport::PacketEndpoint::Handler handler;
    std::unique_ptr<TestSupport::PacketEndpoint> farEnd;
  };
  bool punts() const;
  std::map<std::string, uint64_t> counts() const;

  const uint32_t ports_;
  const bool forwards_;
  const AtFarEnd atFarEnd_;
  std::deque<Link> links_;
  std::optional<Link> cpu_;
};

// The packet-in that the forwarding plane makes of a packet that came in on the port.
std::string punted(uint32_t port, const std::string& packet);
