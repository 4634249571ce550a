#include "platform/lattice/doorbell/Doorbell.h"

#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <utility>

#include "platform/lattice/records/Packing.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/LookFor.h"
#include "platform/vela/PlainText.h"
#include "platform/vela/Scheduling.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeDoorbell");

constexpr size_t maxClients = 80;       // above the 64 subscribers that have a bit each
constexpr size_t mostQuestions = 1024;  // without an answer yet
constexpr int messagesPerTurn = 64;     // so that one subscriber cannot keep the reactor
constexpr uint64_t neverInStep = UINT64_MAX;
constexpr std::chrono::microseconds worthLooking{200};  // of a batch of some hundred entries

Vela::UnixServerOptions serverOptions(const std::string& path, std::chrono::milliseconds silence) {
  Vela::UnixServerOptions options;
  options.listener = {.path = path, .type = SOCK_SEQPACKET};
  options.mostClients = maxClients;
  options.silence = silence;
  options.refusal = [](std::string_view reason) {
    return RefusedMessage{reason}.encode(oldestDoorbellVersion);
  };
  return options;
}

StoreIdentity identityOf(const Brine::Store& store) {
  StoreIdentity identity{};
  store.identity().copy(identity.data(), identity.size());
  return identity;
}

bool answers(const SubscriberInfo& info, Question::Kind kind) {
  return info.answersQuestions && (kind != Question::Kind::lastHits || info.tellsLastHits);
}

// Of two answers about the same entries: an unknown time is longer than any other.
void takeLatestHits(std::string_view other, std::string* times) {
  if (other.size() != times->size()) return;
  for (size_t at = 0; at + sizeof(uint64_t) <= other.size(); at += sizeof(uint64_t)) {
    const auto told = loadAt<uint64_t>(other.data() + at);
    if (told < loadAt<uint64_t>(times->data() + at)) storeAt(times->data() + at, told);
  }
}

}  // namespace

struct Doorbell::Peer {
  Socket socket;
  std::unique_ptr<Vela::UnixSeat> seat;  // goes before the socket
  Vela::Ptr<Vela::FileDescriptor> watch;
  Subscribers bit = 0;
  bool attached = false;
  bool gone = false;
  uint8_t version = oldestDoorbellVersion;  // until it has attached
  std::shared_ptr<DoorbellPage> page;       // null: its version has none
  SubscriberInfo info;                      // sequence: received up to here
  uint64_t attachedAt = 0;                  // the last sequence then
  uint64_t inStepUpTo = neverInStep;        // said after a snapshot; neverInStep: not said
  uint64_t programmedUpTo = 0;              // said; one of the first version never says it
};

Doorbell::Doorbell(Vela::ReactorLoop& loop, const std::string& path,
                   std::chrono::milliseconds silence, Brine::Store& store,
                   std::function<void()> commit)
    : loop_(loop),
      store_(store),
      identity_(identityOf(store)),
      commit_(std::move(commit)),
      fixedTypes_(store),
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
  peer.socket.send(RefusedMessage{reason}.encode(peer.version));
}

void Doorbell::refuseAndEnd(Peer& peer, std::string_view reason) {
  refuse(peer, reason);
  shutdown(peer.socket.descriptor(), SHUT_RDWR);  // the next read finds the end
}

void Doorbell::handleReadable(Peer& peer) { takeMessages(peer, messagesPerTurn); }

bool Doorbell::takeMessages(Peer& peer, int most) {
  for (int i = 0; i < most; ++i) {
    std::string_view message;
    const auto received = peer.socket.receive(buffer_, &message);
    if (received == Socket::Received::nothing) return true;
    const bool hungUp = received == Socket::Received::gone;
    if (hungUp || received == Socket::Received::oversized || !handleMessage(peer, message)) {
      drop(peer, !hungUp);
      return false;
    }
  }
  return true;
}

bool Doorbell::handleMessage(Peer& peer, std::string_view message) {
  if (!peer.attached) return handleAttach(peer, message);
  if (messageKind(message) == MessageKind::reports) return handleReports(peer, message);
  if (messageKind(message) == MessageKind::inStep) return handleInStep(peer, message);
  if (messageKind(message) == MessageKind::programmed) return handleProgrammed(peer, message);
  if (messageKind(message) == MessageKind::notice) return handleNotice(message);
  if (messageKind(message) == MessageKind::answer) return handleAnswer(peer, message);
  return false;
}

bool Doorbell::handleAttach(Peer& peer, std::string_view message) {
  const auto attach = AttachMessage::decode(message);
  if (!attach) {
    if (isForeignAttach(message)) refuse(peer, "the agent speaks another version");
    return false;
  }
  peer.version = messageVersion(message);
  if (missesTypes(*attach)) {
    refuseAndEnd(peer,
                 "a table has another type since this forwarding agent left, and it does not learn "
                 "of that; start it again");
    return true;
  }
  peer.bit = freeBit();
  if (peer.bit == 0) {
    refuseAndEnd(peer, "64 subscribers are attached already");
    return true;
  }
  peer.seat->endSilence();
  const uint64_t last = store_.committedSequence();
  const bool continues = attach->identity == identity_ && attach->sequence <= last &&
                         attach->sequence >= store_.trimmedUpTo();
  peer.info.id = ++lastId_;
  peer.info.name = Vela::plainLine(attach->name, maxSubscriberName);
  peer.attachedAt = last;
  peer.info.appliesAtOnce = (attach->flags & AttachMessage::appliesAtOnce) != 0;
  peer.info.answersQuestions = (attach->flags & AttachMessage::answersQuestions) != 0;
  peer.info.tellsLastHits = (attach->flags & AttachMessage::tellsLastHits) != 0;
  const bool learnsTypes = (attach->flags & AttachMessage::learnsTypes) != 0;
  if (fixedTypes_.attachedIs(peer.info.name, learnsTypes)) commit_();
  peer.info.takingSnapshot = !continues;
  // Its next reads show at least the changes committed so far.
  peer.info.sequence = continues ? attach->sequence : last;
  peer.attached = true;
  SCRIVEL_TRACE(0, "subscriber attached: ", peer.info.name, " continues: ", continues,
                " sequence: ", attach->sequence);
  if (peer.version > 1) peer.page = DoorbellPage::make();
  const std::string accepted = AttachedMessage{identity_}.encode(peer.version);
  const int page = peer.page ? peer.page->descriptor() : -1;
  if (peer.socket.send(accepted, page) != Socket::Sent::all) return false;
  tellAttached();
  return true;
}

// Whether it would go on with the former type of some table.
bool Doorbell::missesTypes(const AttachMessage& attach) const {
  const bool learns = (attach.flags & AttachMessage::learnsTypes) != 0;
  return !learns && attach.identity == identity_ && fixedTypes_.isRetypedAfter(attach.sequence);
}

bool Doorbell::handleReports(Peer& peer, std::string_view message) {
  const auto header = decodeReports(message);
  if (!header || header->receivedUpTo > store_.committedSequence()) return false;
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
  if (!inStep || inStep->sequence > store_.committedSequence()) return false;
  peer.info.takingSnapshot = false;
  peer.inStepUpTo = inStep->sequence;
  tell(book_.release(peer.bit, inStep->sequence));
  maybeTellInStep();
  return true;
}

bool Doorbell::handleProgrammed(Peer& peer, std::string_view message) {
  const auto programmed = ProgrammedMessage::decode(message);
  return programmed && programmedIs(peer, programmed->sequence);
}

bool Doorbell::handleNotice(std::string_view message) {
  const auto decoded = NoticeMessage::decode(message);
  if (decoded && observer_.notice) observer_.notice(decoded->notice);
  return decoded.has_value();
}

bool Doorbell::ask(const Question& question, AnswerHandler handler) {
  if (asked_.size() >= mostQuestions) finish(asked_.begin());  // nobody waits any more
  Asked asked{.kind = question.kind, .handler = std::move(handler)};
  const std::string message = QuestionMessage{++lastQuestion_, question}.encode();
  for (const auto& peer : peers_) {
    if (!peer->attached || !answers(peer->info, question.kind)) continue;
    // One whose queue is full is behind, and might never hear of it.
    if (peer->socket.send(message) == Socket::Sent::all) asked.open |= peer->bit;
  }
  if (asked.open == 0) return false;
  asked_.emplace(lastQuestion_, std::move(asked));
  return true;
}

// One that nobody waits for any more, or never was, is passed over.
bool Doorbell::handleAnswer(Peer& peer, std::string_view message) {
  const auto answer = AnswerMessage::decode(message);
  if (!answer) return false;
  const auto asked = asked_.find(answer->id);
  if (asked == asked_.end() || (asked->second.open & peer.bit) == 0) return true;
  Asked& question = asked->second;
  question.open &= ~peer.bit;
  Answer next{answer->errorCode, std::string(answer->bytes)};
  if (question.kind == Question::Kind::lastHits && question.isAnswered && next.errorCode == 0) {
    takeLatestHits(question.answer.bytes, &next.bytes);
  }
  question.isAnswered = true;
  question.answer = std::move(next);
  if (answer->errorCode != 0) {
    question.answer.bytes = Vela::plainLine(answer->bytes, maxReportText);
    question.open = 0;
  }
  if (question.open == 0) finish(asked);
  return true;
}

void Doorbell::finish(AskedQuestions::iterator asked) {
  const Asked question = std::move(asked->second);
  asked_.erase(asked);
  question.handler(question.isAnswered ? &question.answer : nullptr);
}

void Doorbell::forgetAsked(Subscribers bit) {
  for (auto at = asked_.begin(); at != asked_.end();) {
    const auto asked = at++;
    const bool wasOpen = (asked->second.open & bit) != 0;
    asked->second.open &= ~bit;
    if (wasOpen && asked->second.open == 0) finish(asked);
  }
}

// False for a number that cannot be.
bool Doorbell::programmedIs(Peer& peer, uint64_t sequence) {
  if (sequence > store_.committedSequence()) return false;
  if (sequence <= peer.programmedUpTo) return true;
  peer.programmedUpTo = sequence;
  peer.info.sequence = std::max(peer.info.sequence, sequence);
  if (!book_.empty()) tell(book_.release(peer.bit, sequence));
  maybeTellProgrammed();
  return true;
}

void Doorbell::look() {
  looked_.clear();
  for (const auto& peer : peers_) {
    if (!peer->attached || !peer->page) continue;
    peer->page->words().agentLooks = 1;
    looked_.push_back(peer->page);
  }
}

bool Doorbell::lookForProgrammed(uint64_t sequence) const {
  const auto isThere = [sequence](const auto& page) {
    return page->words().programmed >= sequence;
  };
  return !looked_.empty() &&
         Vela::lookFor(worthLooking, [&] { return std::ranges::all_of(looked_, isThere); });
}

void Doorbell::stopLooking() {
  if (looked_.empty()) return;
  for (const auto& page : looked_) page->words().agentLooks = 0;
  hear();
  looked_.clear();
}

// Failures came by the socket before the word in the page was stored.
void Doorbell::hear() {
  for (size_t i = 0; i < peers_.size();) {
    Peer* const peer = peers_[i].get();
    if (heard(*peer)) ++i;  // else it has left the list
  }
}

bool Doorbell::heard(Peer& peer) {
  const uint64_t programmed = peer.attached && peer.page ? peer.page->words().programmed.load() : 0;
  if (programmed <= peer.programmedUpTo) return true;
  if (!takeMessages(peer, INT_MAX)) return false;
  if (programmedIs(peer, programmed)) return true;
  drop(peer, true);
  return false;
}

// A change is programmed when each has said so that was there when it was committed, and when one
// has said so at all.
void Doorbell::maybeTellProgrammed() {
  uint64_t most = 0;
  uint64_t least = UINT64_MAX;
  for (const auto& peer : peers_) {
    if (!peer->attached || peer->gone) continue;
    most = std::max(most, peer->programmedUpTo);
    least = std::min(least, std::max(peer->attachedAt, peer->programmedUpTo));
  }
  const uint64_t upTo = std::min(most, least);
  if (upTo <= programmedUpTo_ || !observer_.programmed) return;
  programmedUpTo_ = upTo;
  observer_.programmed(upTo);
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
  if (!wasAttached) return;
  forgetAsked(bit);
  maybeTellInStep();  // the others may have waited for it
  maybeTellProgrammed();
  if (observer_.left) observer_.left(info);
  tellAttached();
}

void Doorbell::ring(uint64_t committedBefore) {
  const Subscribers attached = attachedSet();
  if (attached == 0) return;
  if (!std::has_single_bit(attached)) expectReports(committedBefore, attached);
  const RingMessage message{store_.committedSequence()};
  std::atomic_thread_fence(std::memory_order_seq_cst);  // they look for the commit before
  for (const auto& peer : peers_) {
    if (!peer->attached || looks(*peer)) continue;
    // A full queue holds rings that will wake the peer; its watch notices a peer that is gone.
    peer->socket.send(message.encode(peer->version));
  }
}

// The number in the ring is no news.
void Doorbell::urgentIs(bool isUrgent) {
  const RingMessage message{store_.committedSequence()};
  for (const auto& peer : peers_) {
    if (!peer->attached || !peer->page) continue;
    peer->page->words().agentProcessor = Vela::currentProcessor();
    peer->page->words().worthLooking = isUrgent;
    if (isUrgent && !looks(*peer)) peer->socket.send(message.encode());
  }
}

void Doorbell::shownAheadIs(uint64_t sequence) {
  for (const auto& peer : peers_) {
    if (!peer->attached || !peer->page) continue;
    peer->page->words().shownAhead.store(sequence, std::memory_order_release);
  }
}

bool Doorbell::looks(Peer& peer) { return peer.page && peer.page->words().subscriberLooks != 0; }

// Records that are no rows have no owner, and nobody reports on them.
void Doorbell::expectReports(uint64_t committedBefore, Subscribers attached) {
  std::vector<CommittedChange> changes;
  for (uint64_t sequence = committedBefore + 1; sequence <= store_.committedSequence();
       ++sequence) {
    const auto change = store_.change(sequence);
    if (change && change->owner != 0) changes.push_back({sequence, change->owner});
  }
  book_.expect(changes, attached);
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
