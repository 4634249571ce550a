// The forwarder as a switch: the plane that executes a program, the thread of packets, the ports
// that the agent maps, and the news between them.
#pragma once

#include <poll.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "forwarder/packets/PacketThread.h"
#include "forwarder/plane/DigestQueue.h"
#include "forwarder/plane/Plane.h"
#include "forwarder/punt/PuntView.h"
#include "platform/lattice/Subscriber.h"
#include "platform/vela/EventDescriptor.h"

namespace Forwarder {

struct ForwardingOptions {
  PacketOptions packets;
  PlaneOptions plane;
};

// Threads: one at a time, the one that follows the agent. Its own threads process packets and
// follow the agent's port mapping.
class Forwarding {
 public:
  using Clock = std::chrono::steady_clock;
  using Log = std::function<void(const std::string& line)>;  // any thread calls it

  // Throws P4::ProgramError. `flows` outlive this.
  Forwarding(ForwardingOptions options, const std::string& stateDirectory, FlowBook& flows,
             Log log);

  void start();
  Plane& plane() { return plane_; }
  PacketThread& packets() { return packets_; }
  EngineSlot& slot() { return slot_; }

  // Passes on all that is due: states of ports, counts, digests and idle entries.
  void work(Clock::time_point now, Lattice::Subscriber& subscriber);
  Clock::time_point nextDue() const;
  void pollDescriptors(std::vector<pollfd>& descriptors) const;

 private:
  void doTakePorts();
  void doTakePortStates();
  void doSendNotices(Clock::time_point now, Lattice::Subscriber& subscriber);

  const Vela::EventDescriptor signal_;  // ports or their states have changed
  std::mutex mutex_;                    // guards the next
  std::vector<std::pair<uint32_t, bool>> portStates_;
  EngineSlot slot_;
  DigestQueue digests_;
  Plane plane_;
  PacketThread packets_;
  std::shared_ptr<const PuntPicture> picture_;  // whose ports are taken
  PuntView view_;
  Clock::time_point idleDue_{};
};

}  // namespace Forwarder
