// The way to the packets of one kernel device: an AF_PACKET socket, read and written in batches.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/wirra/packets/Packet.h"

namespace Wirra {

// The result of sending a packet.
enum class SendResult {
  sent,
  full,      // the device takes no more now: onSpaceIs() tells when it does; not sent
  tooLong,   // longer than the device's MTU allows, or empty
  noDevice,  // it is down or gone
  failed     // anything else, and a packet that was `full` for a second or so; see trouble()
};

// Bound to its device, also when that is renamed. It ends with the device: make another one for a
// new device of the same name. Call on the reactor with the lock held.
class PacketAccessManager final : public Vela::Entity {
 public:
  using Ptr = Vela::Ptr<PacketAccessManager>;
  enum class Mode { receiveAndSend, sendOnly };

  // name() is the device's name. Throws std::system_error: no such device, no permission.
  PacketAccessManager(Vela::ReactorLoop& loop, const std::string& device, Mode mode);
  ~PacketAccessManager() override;
  const char* typeName() const override { return "Wirra::PacketAccessManager"; }

  int ifIndex() const;
  // `packets` runs as long as there is something to read. Packets that this host sends out of the
  // device are not among them.
  void onPacketsIs(std::function<void()> packets);
  // Appends the packets that have come, at most `most`, oldest first, to `out`; returns their
  // number. A packet that is too long, or cannot get memory, is dropped and counted.
  size_t packets(size_t most, std::vector<Packet::Ptr>* out);

  // Sends in order until one is not sent for another reason than its own (full, noDevice); one that
  // is tooLong or failed is skipped. Appends a result for each packet it dealt with, `full` and
  // `noDevice` included; those after it have none and can be given again. Gives the activity lock
  // up while the kernel works: keep this and the packets alive, and believe nothing read before.
  void send(std::span<const Packet::Ptr> packets, std::vector<SendResult>* results);
  void onSpaceIs(std::function<void()> space);  // runs once, when there is space after `full`
  const std::string& trouble() const;           // of the last failure, in the kernel's words

  // Brought up to date when asked for through attributes; packets unless said.
  struct Counts {
    uint64_t received = 0, receivedBytes = 0;
    uint64_t sent = 0, sentBytes = 0;
    uint64_t missed = 0;   // the socket's buffer was full
    uint64_t refused = 0;  // no memory for them, or too long, when read
  };
  const Counts& counts();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Wirra
