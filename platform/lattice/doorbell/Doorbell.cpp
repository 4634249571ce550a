#include "platform/lattice/doorbell/Doorbell.h"

#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/PlainText.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeDoorbell");

constexpr size_t maxClients = 80;    // above the 64 subscribers that have a bit each
constexpr int messagesPerTurn = 64;  // so that one subscriber cannot keep the reactor
constexpr uint64_t neverInStep = UINT64_MAX;

Vela::UnixServerOptions serverOptions(const std::string& path, std::chrono::milliseconds silence) {
  Vela::UnixServerOptions options;
  options.listener = {.path = path, .type = SOCK_SEQPACKET};
  options.mostClients = maxClients;
  options.silence = silence;
  options.refusal = [](std::string_view reason) { return RefusedMessage{reason}.encode(); };
  return options;
}

}  // namespace

struct Doorbell::Peer {
  Socket socket;
  std::unique_ptr<Vela::UnixSeat> seat;  // goes before the socket
  Vela::Ptr<Vela::FileDescriptor> watch;
  Subscribers bit = 0;
  bool attached = false;
  bool gone = false;
  SubscriberInfo info;                // sequence: received up to here
  uint64_t attachedAt = 0;            // the last sequence then
  uint64_t inStepUpTo = neverInStep;  // said after a snapshot; neverInStep: not said
};

Doorbell::Doorbell(Vela::ReactorLoop& loop, const std::string& path,
                   std::chrono::milliseconds silence, const StoreIdentity& identity,
                   const Journal& journal)
    : loop_(loop),
      identity_(identity),
      journal_(journal),
      buffer_(maxMessageBytes, '\0'),
      server_(loop, serverOptions(path, silence),
              [this](Vela::UnixClient client) { handleClient(std::move(client)); }) {}

Doorbell::~Doorbell() {
  for (const auto& peer : peers_) {
    peer->watch->onReadableIs(nullptr);
    peer->watch->descriptorIs(-1);
  }
}

void Doorbell::handleClient(Vela::UnixClient client) {
  auto peer = std::make_unique<Peer>();
  peer->socket = Socket(client.socket.release());
  peer->seat = std::move(client.seat);
  peer->info.pid = client.pid;
  peer->watch = Vela::make<Vela::FileDescriptor>(loop_, "subscriber");
  peer->watch->descriptorIs(peer->socket.descriptor());
  Peer* raw = peer.get();
  peer->watch->onReadableIs([this, raw] { handleReadable(*raw); });
  peers_.push_back(std::move(peer));
}

Subscribers Doorbell::freeBit() const {
  const Subscribers taken = attachedSet();
  return taken == ~Subscribers{0} ? 0 : Subscribers{1} << std::countr_one(taken);
}

void Doorbell::refuse(Peer& peer, std::string_view reason) {
  SCRIVEL_TRACE(0, "refused a subscriber: ", reason);
  peer.socket.send(RefusedMessage{reason}.encode());
}

void Doorbell::handleReadable(Peer& peer) {
  for (int i = 0; i < messagesPerTurn; ++i) {
    std::string_view message;
    const auto received = peer.socket.receive(buffer_, &message);
    if (received == Socket::Received::nothing) return;
    if (received == Socket::Received::gone) return drop(peer, false);
    if (received == Socket::Received::oversized || !handleMessage(peer, message)) {
      return drop(peer, true);
    }
  }
}

bool Doorbell::handleMessage(Peer& peer, std::string_view message) {
  if (!peer.attached) return handleAttach(peer, message);
  if (messageKind(message) == MessageKind::reports) return handleReports(peer, message);
  if (messageKind(message) == MessageKind::inStep) return handleInStep(peer, message);
  return false;
}

bool Doorbell::handleAttach(Peer& peer, std::string_view message) {
  const auto attach = AttachMessage::decode(message);
  if (!attach) {
    if (isForeignAttach(message)) refuse(peer, "the agent speaks another version");
    return false;
  }
  peer.bit = freeBit();
  if (peer.bit == 0) {
    refuse(peer, "64 subscribers are attached already");
    shutdown(peer.socket.descriptor(), SHUT_RDWR);  // the next read finds the end
    return true;
  }
  peer.seat->endSilence();
  const uint64_t last = journal_.lastSequence();
  const bool continues = attach->identity == identity_ && attach->sequence <= last &&
                         attach->sequence >= journal_.trimmedUpTo();
  peer.info.id = ++lastId_;
  peer.info.name = Vela::plainLine(attach->name, maxSubscriberName);
  peer.attachedAt = last;
  peer.info.takingSnapshot = !continues;
  // Its next reads show at least the changes committed so far.
  peer.info.sequence = continues ? attach->sequence : last;
  peer.attached = true;
  SCRIVEL_TRACE(0, "subscriber attached: ", peer.info.name, " continues: ", continues,
                " sequence: ", attach->sequence);
  if (peer.socket.send(AttachedMessage{identity_}.encode()) != Socket::Sent::all) return false;
  tellAttached();
  return true;
}

bool Doorbell::handleReports(Peer& peer, std::string_view message) {
  const auto header = decodeReports(message);
  if (!header || header->receivedUpTo > journal_.lastSequence()) return false;
  reports_.clear();
  texts_.clear();
  const bool sound = eachReport(
      *header, [&](const PackedReport& report) { reports_.push_back(readReport(peer, report)); });
  if (!sound) return false;
  peer.info.reports += reports_.size();
  peer.info.sequence = std::max(peer.info.sequence, header->receivedUpTo);
  if (header->flags & ReportsMessage::takingSnapshot) peer.info.takingSnapshot = true;
  for (Report& report : reports_) report.settles = settles(peer, report);
  tell(reports_);
  return true;
}

// The text goes to controllers, into statuses and logs.
Report Doorbell::readReport(const Peer& peer, const PackedReport& report) {
  std::string_view text = report.errorCode != 0 ? report.text : std::string_view();
  if (!Vela::isPlainLine(text, maxReportText)) {
    text = texts_.emplace_back(Vela::plainLine(text, maxReportText));
  }
  return {report.entryHandle, report.sequence, report.errorCode, text,
          peer.info.id,       peer.info.name};
}

bool Doorbell::settles(const Peer& peer, const Report& report) {
  if (!book_.empty() && !book_.settles(peer.bit, report)) return false;
  if (report.errorCode != 0 || report.sequence > peer.attachedAt) return true;
  // A latecomer reports on its snapshot: the subscribers before it decide.
  return std::ranges::none_of(peers_, [&](const auto& other) {
    return other->attached && other->attachedAt < report.sequence;
  });
}

bool Doorbell::handleInStep(Peer& peer, std::string_view message) {
  const auto inStep = InStepMessage::decode(message);
  if (!inStep || inStep->sequence > journal_.lastSequence()) return false;
  peer.info.takingSnapshot = false;
  peer.inStepUpTo = inStep->sequence;
  tell(book_.release(peer.bit, inStep->sequence));
  maybeTellInStep();
  return true;
}

void Doorbell::maybeTellInStep() {
  uint64_t upTo = neverInStep;
  for (const auto& peer : peers_) {
    if (!peer->attached || peer->gone) continue;
    if (peer->inStepUpTo == neverInStep) return;  // handleInStep() asks again
    upTo = std::min(upTo, peer->inStepUpTo);
  }
  if (upTo != neverInStep && observer_.inStep) observer_.inStep(upTo);
}

void Doorbell::tell(std::span<const Report> reports) {
  if (!reports.empty() && observer_.reports) observer_.reports(reports);
}

void Doorbell::tellAttached() {
  if (observer_.attached) observer_.attached(std::popcount(attachedSet()));
}

void Doorbell::drop(Peer& peer, bool malformed) {
  if (malformed) ++droppedMessages_;
  SCRIVEL_TRACE(0, "subscriber detached: ", peer.info.name, " malformed message: ", malformed);
  peer.gone = true;
  peer.watch->onReadableIs(nullptr);
  peer.watch->descriptorIs(-1);
  const Subscribers bit = peer.bit;
  const bool wasAttached = peer.attached;
  const SubscriberInfo info = peer.info;
  std::erase_if(peers_, [&](const auto& other) { return other.get() == &peer; });
  tell(book_.remove(bit));
  journal_.handleFollowerGone();
  if (!wasAttached) return;
  maybeTellInStep();  // the others may have waited for it
  if (observer_.left) observer_.left(info);
  tellAttached();
}

void Doorbell::ring(uint64_t lastSequence, std::span<const CommittedChange> changes) {
  const Subscribers attached = attachedSet();
  if (attached == 0) return;
  if (!changes.empty() && !std::has_single_bit(attached)) book_.expect(changes, attached);
  const std::string message = RingMessage{lastSequence}.encode();
  for (const auto& peer : peers_) {
    // A full queue holds rings that will wake the peer; its watch notices a peer that is gone.
    if (peer->attached) peer->socket.send(message);
  }
}

Subscribers Doorbell::attachedSet() const {
  Subscribers set = 0;
  for (const auto& peer : peers_) {
    if (peer->attached) set |= peer->bit;
  }
  return set;
}

bool Doorbell::anyAttached() const { return attachedSet() != 0; }

uint64_t Doorbell::receivedByAll() const {
  uint64_t least = UINT64_MAX;
  for (const auto& peer : peers_) {
    if (peer->attached) least = std::min(least, peer->info.sequence);
  }
  return least;
}

std::vector<SubscriberInfo> Doorbell::subscribers() const {
  std::vector<SubscriberInfo> infos;
  for (const auto& peer : peers_) {
    if (peer->attached) infos.push_back(peer->info);
  }
  return infos;
}

}  // namespace Lattice
