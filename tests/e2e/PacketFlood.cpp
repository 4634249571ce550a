// packet-flood ADDRESS STREAM ELECTIONID: a controller in a process of its own, made to be killed.
// Becomes primary and sends marked packets through port 1 without end; a packet-in for each one
// that has gone through lets it go on.
#include <string>

#include "tests/support/MarkedPacket.h"
#include "tests/support/TestController.h"
#include "tests/support/Window.h"

using namespace TestSupport;

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const auto stream = static_cast<uint32_t>(std::stoul(argv[2]));
  Window window(256);
  TestController controller(argv[1], std::stoull(argv[3]));
  controller.onPacketInIs([&](const p4::v1::PacketIn& packet) {
    const auto mark = markOf(packet.payload());
    if (mark && mark->stream == stream) window.give();
  });
  if (!controller.becomePrimary()) return 1;
  for (uint64_t sequence = 0; window.take(); ++sequence) {
    const PacketMark mark{.stream = stream, .port = 1, .sequence = sequence};
    controller.send(packetOut(1, markedPacket(mark, 60 + sequence % 1400)));
  }
  return 1;
}
