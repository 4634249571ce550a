// Reading and sending go on until the socket has no more or takes no more; the kernel's errors are
// told apart by the caller's choices.
#include "platform/wirra/packets/PacketAccessManager.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/Timer.h"
#include "platform/wirra/packets/PacketManager.h"
#include "platform/wirra/packets/PacketSocket.h"
#include "platform/wirra/packets/ReceiveBatch.h"

namespace Wirra {

static Scrivel::TraceHandle trace("PacketAccessManager");

namespace {

constexpr size_t mostSendBatch = 64;
constexpr std::chrono::milliseconds spaceDelay(1);
constexpr unsigned mostDelays = 1000;  // without a packet sent

// Gives the activity lock up: the kernel may carry packets all the way to their receiver before it
// returns, and the threads that bring more need the lock. errno is that of the call.
int sentUnlocked(int descriptor, mmsghdr* messages, unsigned count) {
  int sent = -1;
  int error = 0;
  {
    const Vela::ActivityLockReleased released;
    sent = sendmmsg(descriptor, messages, count, MSG_DONTWAIT);
    if (sent < 0 && (errno == EINTR || errno == ENETDOWN)) {
      // The socket may only have remembered that the device was down for a while.
      sent = sendmmsg(descriptor, messages, count, MSG_DONTWAIT);
    }
    error = errno;
  }
  errno = error;
  return sent;
}

// One for all devices: it is large, and only read into with the activity lock held.
ReceiveBatch& theReceiveBatch() {
  static auto* batch = new ReceiveBatch;
  return *batch;
}

}  // namespace

struct PacketAccessManager::Impl {
  Impl(PacketAccessManager& self, Vela::ReactorLoop& loop, const std::string& device, Mode mode)
      : owner(self),
        receives(mode == Mode::receiveAndSend),
        socket(device, receives),
        watch(Vela::make<Vela::FileDescriptor>(loop, "packets of " + device)),
        spaceTimer(loop, [this] { maybeTellSpace(); }) {
    watch->descriptorIs(socket.descriptor());
  }
  ~Impl() { watch->descriptorIs(-1); }

  size_t take(size_t most, std::vector<Packet::Ptr>* out);
  void takeFrame(const Frame& frame, std::vector<Packet::Ptr>* out);
  size_t sendRun(std::span<const Packet::Ptr> packets, std::vector<SendResult>* results);
  SendResult resultOf(int error);
  bool isHopeless(size_t size);
  std::optional<SendResult> ownFault(const Packet::Ptr& packet);
  bool deviceRuns() const;
  void maybeTellSpace();
  void updateMissed();

  PacketAccessManager& owner;
  const bool receives;
  PacketSocket socket;
  const Vela::Ptr<Vela::FileDescriptor> watch;
  Vela::Timer spaceTimer;
  std::function<void()> space;
  bool full = false;
  unsigned delays = 0;             // since a packet was sent
  size_t hopelessSize = SIZE_MAX;  // for such packets, and longer ones, no space is waited for
  std::string trouble;
  Counts counts;
};

size_t PacketAccessManager::Impl::take(size_t most, std::vector<Packet::Ptr>* out) {
  ReceiveBatch& batch = theReceiveBatch();
  const size_t had = out->size();
  int errors = 0;
  for (size_t dealt = 0; dealt < most;) {
    const size_t wanted = std::min(most - dealt, ReceiveBatch::mostFrames);
    const int read = batch.read(socket.descriptor(), wanted);
    if (read < 0) {
      if (errno == EAGAIN || ++errors > 2) break;
      // An error of the device's is told once, and packets may wait behind it.
      trouble = owner.name() + ": " + std::strerror(errno);
      SCRIVEL_TRACE(1, "cannot read packets of ", trouble);
      continue;
    }
    for (int i = 0; i < read; ++i) takeFrame(batch.frame(i), out);
    dealt += read;
    if (static_cast<size_t>(read) < wanted) break;
  }
  return out->size() - had;
}

void PacketAccessManager::Impl::takeFrame(const Frame& frame, std::vector<Packet::Ptr>* out) {
  Packet::Ptr packet;
  if (!frame.tooLong) packet = ThePacketManager().packet(frame.wireSize());
  if (!packet) {
    ++counts.refused;
    return;
  }
  frame.copyTo(packet->head());
  ++counts.received;
  counts.receivedBytes += packet->size();
  out->push_back(std::move(packet));
}

// What the kernel would refuse with words that do not help.
std::optional<SendResult> PacketAccessManager::Impl::ownFault(const Packet::Ptr& packet) {
  if (!packet || packet->size() == 0) {
    trouble = owner.name() + ": a packet without bytes cannot be sent";
    return SendResult::tooLong;
  }
  if (packet->size() < ETH_HLEN) {
    trouble = owner.name() + ": a packet of " + std::to_string(packet->size()) +
              " bytes is shorter than an Ethernet header";
    return SendResult::failed;
  }
  return std::nullopt;
}

bool PacketAccessManager::Impl::deviceRuns() const {
  ifreq request{};
  request.ifr_ifindex = socket.ifIndex();
  if (ioctl(socket.descriptor(), SIOCGIFNAME, &request) != 0) return false;  // gone
  if (ioctl(socket.descriptor(), SIOCGIFFLAGS, &request) != 0) return false;
  return (request.ifr_flags & IFF_UP) && (request.ifr_flags & IFF_RUNNING);
}

SendResult PacketAccessManager::Impl::resultOf(int error) {
  if (error != EAGAIN) trouble = owner.name() + ": " + std::strerror(error);
  switch (error) {
    case EAGAIN:
    case ENOMEM:
      return SendResult::full;
    case ENOBUFS:  // a queue below us is full, or nobody is at the other end of the wire
      return deviceRuns() ? SendResult::full : SendResult::noDevice;
    case EMSGSIZE:
      return SendResult::tooLong;
    case ENETDOWN:
    case ENXIO:
    case ENODEV:
      return SendResult::noDevice;
    default:
      return SendResult::failed;
  }
}

// Sends the packets up to the first with a fault of its own, as far as the device takes them;
// returns their number. At 0 errno says why.
size_t PacketAccessManager::Impl::sendRun(std::span<const Packet::Ptr> packets,
                                          std::vector<SendResult>* results) {
  iovec bytes[mostSendBatch];
  mmsghdr messages[mostSendBatch];
  size_t run = 0;
  for (; run < std::min(packets.size(), mostSendBatch); ++run) {
    const Packet::Ptr& packet = packets[run];
    if (!packet || packet->size() < ETH_HLEN) break;
    bytes[run] = {packet->head(), packet->size()};
    messages[run] = {};
    messages[run].msg_hdr.msg_iov = &bytes[run];
    messages[run].msg_hdr.msg_iovlen = 1;
  }
  const int sent = sentUnlocked(socket.descriptor(), messages, static_cast<unsigned>(run));
  for (int i = 0; i < sent; ++i) {
    ++counts.sent;
    counts.sentBytes += packets[i]->size();
    results->push_back(SendResult::sent);
    delays = 0;
    if (packets[i]->size() >= hopelessSize) hopelessSize = SIZE_MAX;
  }
  return std::max(sent, 0);
}

// The kernel says "no space" for good, too: of a veth whose other end has a smaller MTU, of a queue
// that nobody empties. To wait for that would hold up the packets behind it forever.
bool PacketAccessManager::Impl::isHopeless(size_t size) {
  if (size < hopelessSize && delays < mostDelays) return false;
  hopelessSize = std::min(hopelessSize, size);
  delays = 0;
  trouble = owner.name() + " takes no packets of " + std::to_string(size) +
            " bytes; see whether its other end has the same MTU, and whether its queue is emptied";
  return true;
}

// Any view of a socket buffer is out of date at once, so each call asks again.
void PacketAccessManager::Impl::maybeTellSpace() {
  if (!full) return;
  pollfd ready{socket.descriptor(), POLLOUT, 0};
  const bool isWaitedFor = ++delays < mostDelays && poll(&ready, 1, 0) == 0;
  if (isWaitedFor) return spaceTimer.start(spaceDelay);
  full = false;
  const auto callback = space;
  if (callback) callback();
}

void PacketAccessManager::Impl::updateMissed() {
  tpacket_stats stats{};
  socklen_t size = sizeof stats;
  if (getsockopt(socket.descriptor(), SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) return;
  counts.missed += stats.tp_drops;  // the kernel starts again at zero
}

PacketAccessManager::PacketAccessManager(Vela::ReactorLoop& loop, const std::string& device,
                                         Mode mode)
    : Entity(device), impl_(std::make_unique<Impl>(*this, loop, device, mode)) {}

PacketAccessManager::~PacketAccessManager() = default;

int PacketAccessManager::ifIndex() const { return impl_->socket.ifIndex(); }

void PacketAccessManager::onPacketsIs(std::function<void()> packets) {
  if (impl_->receives) impl_->watch->onReadableIs(std::move(packets));
}

size_t PacketAccessManager::packets(size_t most, std::vector<Packet::Ptr>* out) {
  return impl_->receives ? impl_->take(most, out) : 0;
}

void PacketAccessManager::send(std::span<const Packet::Ptr> packets,
                               std::vector<SendResult>* results) {
  while (!packets.empty()) {
    if (const auto fault = impl_->ownFault(packets.front())) {
      results->push_back(*fault);
      packets = packets.subspan(1);
      continue;
    }
    if (const size_t sent = impl_->sendRun(packets, results)) {
      packets = packets.subspan(sent);
      continue;
    }
    SendResult result = impl_->resultOf(errno);
    if (result == SendResult::full && impl_->isHopeless(packets.front()->size())) {
      result = SendResult::failed;
    }
    results->push_back(result);
    packets = packets.subspan(1);
    if (result == SendResult::noDevice) return;
    if (result == SendResult::full) {
      impl_->full = true;
      impl_->spaceTimer.start(spaceDelay);
      return;
    }
  }
}

void PacketAccessManager::onSpaceIs(std::function<void()> space) {
  impl_->space = std::move(space);
}

const std::string& PacketAccessManager::trouble() const { return impl_->trouble; }

const PacketAccessManager::Counts& PacketAccessManager::counts() {
  impl_->updateMissed();
  return impl_->counts;
}

}  // namespace Wirra
