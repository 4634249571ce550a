#include "platform/lattice/Subscriber.h"

#include <absl/container/flat_hash_set.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/brine/Reader.h"
#include "platform/lattice/doorbell/AheadChanges.h"
#include "platform/lattice/doorbell/ChangePace.h"
#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellPage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "platform/lattice/doorbell/OpenChanges.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/records/WholeBatch.h"
#include "platform/vela/LookFor.h"
#include "platform/vela/Scheduling.h"

namespace Lattice {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds retryInterval{100};
constexpr std::chrono::microseconds usuallyWorthLooking{600};
constexpr std::chrono::milliseconds longestStay{5};  // the caller has other duties, too
constexpr std::chrono::milliseconds longestStayForLarge{20};
// The agent or its files are not as they should be: detach and try again later.
struct Detached {
  std::string why;
};

// Without these rows a snapshot would take them out of the hardware.
std::string damagedText(const std::string& table, size_t rows) {
  return "table " + table + " has damaged rows in shared memory: " + std::to_string(rows) +
         "; restart the agent, which mends them";
}

class SubscriberImpl final : public Subscriber {
  // The changes in whole_.
  class Commit final : public WholeCommit {
   public:
    Commit(const SubscriberImpl& subscriber, Brine::Reader& reader)
        : subscriber_(subscriber), reader_(reader) {}
    bool has(uint64_t sequence) const override;
    bool visitFormer(const std::function<void(const RowChange&)>& visit) const override;

   private:
    const SubscriberImpl& subscriber_;
    Brine::Reader& reader_;
  };

 public:
  SubscriberImpl(std::string directory, std::string name, SubscriberHandler& handler)
      : directory_(std::move(directory)),
        name_(std::move(name)),
        handler_(handler),
        buffer_(maxMessageBytes, '\0') {}

  void appliesAtOnceIs(bool appliesAtOnce) override { appliesAtOnce_ = appliesAtOnce; }
  void answersQuestionsIs(bool answers) override { answersQuestions_ = answers; }
  void tellsLastHitsIs(bool tells) override { tellsLastHits_ = tells; }
  void learnsTypesIs(bool learns) override { learnsTypes_ = learns; }
  void readsAheadIs(bool readsAhead) override { readsAhead_ = readsAhead; }
  void follow(std::chrono::milliseconds timeout) override;
  const std::string& trouble() const override { return trouble_; }
  bool attached() const override { return attached_; }
  void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
              std::string_view message) override;
  void flush() override;
  bool digest(uint32_t digestId, std::string_view message) override {
    return sendNotice({.kind = Notice::Kind::digest, .digestId = digestId, .message = message});
  }
  bool idle(uint64_t entryHandle) override {
    return sendNotice({.kind = Notice::Kind::idleEntry, .entryHandle = entryHandle});
  }
  void lookForIs(std::chrono::microseconds most) override { worthLooking_ = most; }
  uint64_t sequence() const override { return sequence_; }
  int descriptor() const override { return attached_ ? socket_.descriptor() : -1; }
  bool sending() const override { return !outbox_.empty(); }

 private:
  bool sendNotice(const Notice& notice);
  void answerQuestions();
  void step(Clock::time_point deadline);
  void waitReadable(Clock::time_point until);
  bool attachBy(Clock::time_point deadline);
  void sendAttach();
  void receiveAll();
  void handleMessage(std::string_view message, const Vela::UniqueFd& page);
  void handleAttached(const AttachedMessage& attached, const Vela::UniqueFd& page);
  void detach(std::string why);

  void catchUp();
  bool maybeLookForChanges();
  void say();
  void stay();
  bool anyChanges() const { return reader_->state().committed != sequence_; }
  bool anyAhead() const;
  void nap();
  bool maybeReadAhead();
  void passOnAhead(std::span<const Brine::FollowedChange> changes);
  void maybeGiveUpAhead();
  bool maybeTakeAhead(uint64_t committed);
  void tellAheadLost();
  bool readOnce();
  void learnTables();
  void maybeRetype(uint32_t number, const TableRecord& record);
  void removeTablesBut(const std::map<uint32_t, std::pair<std::string, TableRecord>>& present);
  void addTable(const std::string& name, const TableRecord& record);
  std::shared_ptr<const TableType> typeOf(const std::string& name, const TableRecord& record);
  void takeSnapshot();
  void passOn(const Brine::Snapshot& snapshot);
  void passOn(std::span<const Brine::FollowedChange> changes, uint64_t& reached);
  RowChange rowChange(const Brine::FollowedChange& change) const;
  void passOn(const RowChange& change);
  void maybeNoteWhole(const Brine::FollowedChange& change);
  void tellWholeCommit();
  void addReport(const PackedReport& report);

  void maybeSayInStep();
  void queueReports();
  void queueProgrammed();
  void maybeStoreWord();
  void sendQueued();

  const std::string directory_;
  const std::string name_;
  SubscriberHandler& handler_;
  std::string trouble_ = "not attached yet";

  // The connection.
  Socket socket_;
  std::shared_ptr<DoorbellPage> page_;  // null: the agent sent none
  bool attached_ = false;
  bool appliesAtOnce_ = false;
  bool answersQuestions_ = false;
  bool tellsLastHits_ = false;
  bool learnsTypes_ = false;
  bool readsAhead_ = false;
  std::vector<QuestionMessage> questions_;
  Clock::time_point nextAttempt_{};
  std::string buffer_;
  std::deque<std::string> outbox_;
  ReportsWriter reports_;
  uint64_t receivedSaid_ = 0;
  std::shared_ptr<Brine::Reader> reader_;  // shared with catchUp(), in which we may detach
  bool rung_ = false;
  std::chrono::microseconds worthLooking_ = usuallyWorthLooking;
  ChangePace pace_;

  // What is known; survives a detachment.
  StoreIdentity identity_{};
  bool identityKnown_ = false;
  uint64_t sequence_ = 0;
  AheadChanges ahead_;                         // behind sequence_
  std::shared_ptr<Brine::Reader> lostReader_;  // of such changes whose agent has gone
  bool isBatchLarge_ = false;                  // the last commit could be read ahead
  uint64_t typesVersion_ = UINT64_MAX;
  bool needSnapshot_ = true;
  OpenChanges open_;  // a snapshot takes their place
  uint64_t programmedSaid_ = 0;
  bool isWordDue_ = false;                     // the page does not say so yet
  std::map<uint32_t, FollowedTable*> tables_;  // by number
  std::map<uint32_t, TableRecord> records_;    // of these tables
  std::vector<std::unique_ptr<FollowedTable>> allTables_;
  std::map<uint32_t, bool> isWholeBatch_;             // by number, of the tables that have no rows
  std::vector<std::pair<uint64_t, uint64_t>> whole_;  // ranges of the commit that is read
  // Entries that are not programmed as the agent has them. An agent that dies may not have heard of
  // them, and the next one does not know; it hears of them with a snapshot.
  std::unordered_set<uint64_t> failed_;

  // The snapshot that is being reported on.
  bool inSnapshot_ = false;
  bool delivered_ = false;  // all its rows were passed on
  uint64_t snapshotSequence_ = 0;
  absl::flat_hash_set<uint64_t> unreported_;  // sequence numbers of its rows
};

void SubscriberImpl::follow(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  tellAheadLost();
  try {
    step(deadline);
  } catch (const Detached& detached) {
    detach(detached.why);
  } catch (const Brine::StoreError& error) {
    detach(error.what());
  }
  tellAheadLost();
}

void SubscriberImpl::step(Clock::time_point deadline) {
  if (!attached_ && !attachBy(deadline)) return;
  maybeGiveUpAhead();
  queueReports();
  sendQueued();
  receiveAll();
  if (!rung_) {
    waitReadable(deadline);
    receiveAll();
  }
  if (rung_) catchUp();
  answerQuestions();
  if (attached_) stay();
}

void SubscriberImpl::answerQuestions() {
  for (const QuestionMessage& asked : std::exchange(questions_, {})) {
    if (!attached_) return;
    const Answer answer = handler_.answer(asked.question);
    outbox_.push_back(AnswerMessage{asked.id, answer.errorCode, answer.bytes}.encode());
  }
}

void SubscriberImpl::say() {
  queueReports();
  maybeSayInStep();
  sendQueued();
}

// While the changes of one batch soon follow those of another, or a ring without changes has told
// that a batch is in the making.
void SubscriberImpl::stay() {
  const auto begin = Clock::now();
  do {
    say();
    handler_.rowsReported();
    pace_.quietIs(Clock::now());
  } while (Clock::now() - begin < (isBatchLarge_ ? longestStayForLarge : longestStay) &&
           maybeLookForChanges());
}

void SubscriberImpl::waitReadable(Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  pollfd watched{socket_.descriptor(), POLLIN, 0};
  if (!outbox_.empty()) watched.events |= POLLOUT;
  ::poll(&watched, watched.fd >= 0 ? 1 : 0,
         static_cast<int>(std::clamp<int64_t>(left, 0, 1 << 30)));
}

// Tries until the deadline, now and then; true when the agent has let us in.
bool SubscriberImpl::attachBy(Clock::time_point deadline) {
  for (;;) {
    const auto now = Clock::now();
    if (!socket_ && now >= nextAttempt_) {
      nextAttempt_ = now + retryInterval;
      sendAttach();
    }
    waitReadable(socket_ ? deadline : std::min(deadline, nextAttempt_));
    if (socket_) receiveAll();
    if (attached_) return true;
    if (Clock::now() >= deadline) return false;
  }
}

void SubscriberImpl::sendAttach() {
  int error = 0;
  socket_ = connectedTo(directory_ + "/doorbell.sock", &error);
  if (!socket_) {
    trouble_ = "no agent answers at " + directory_ + "/doorbell.sock (" + std::strerror(error) +
               "); start the agent with this state directory";
    return;
  }
  if (!failed_.empty()) needSnapshot_ = true;
  AttachMessage attach{needSnapshot_ ? 0 : sequence_, identity_, name_};
  if (appliesAtOnce_) attach.flags |= AttachMessage::appliesAtOnce;
  if (answersQuestions_) attach.flags |= AttachMessage::answersQuestions;
  if (tellsLastHits_) attach.flags |= AttachMessage::tellsLastHits;
  if (learnsTypes_) attach.flags |= AttachMessage::learnsTypes;
  if (!identityKnown_ || needSnapshot_) attach.identity = {};
  if (socket_.send(attach.encode()) != Socket::Sent::all) throw Detached{"the agent hung up"};
}

void SubscriberImpl::receiveAll() {
  std::string_view message;
  for (;;) {
    Vela::UniqueFd page;
    switch (socket_.receive(buffer_, &message, &page)) {
      case Socket::Received::nothing:
        return;
      case Socket::Received::gone:
        throw Detached{"the agent hung up"};
      case Socket::Received::oversized:
        throw Detached{"the agent sent an oversized message"};
      case Socket::Received::message:
        handleMessage(message, page);
    }
  }
}

void SubscriberImpl::handleMessage(std::string_view message, const Vela::UniqueFd& page) {
  if (const auto refused = RefusedMessage::decode(message)) {
    throw Detached{"the agent refuses: " + std::string(refused->reason)};
  }
  if (attached_ && RingMessage::decode(message)) {
    rung_ = true;
  } else if (const auto asked = QuestionMessage::decode(message); asked && attached_) {
    questions_.push_back(*asked);
    rung_ = true;  // changes of before may not have rung yet
  } else if (const auto accepted = AttachedMessage::decode(message); accepted && !attached_) {
    handleAttached(*accepted, page);
  } else {
    throw Detached{"the agent sent a message that this program does not know"};
  }
}

void SubscriberImpl::handleAttached(const AttachedMessage& accepted, const Vela::UniqueFd& page) {
  auto reader = Brine::Reader::open(directory_);
  // An agent may have ended meanwhile, and the next one have begun another store.
  if (!std::ranges::equal(reader->identity(), accepted.identity)) {
    throw Detached{"the store in " + directory_ +
                   " is another one than the agent's; if this lasts, restart the agent"};
  }
  page_ = DoorbellPage::open(page);
  if (!identityKnown_ || accepted.identity != identity_) {
    needSnapshot_ = true;
    typesVersion_ = UINT64_MAX;
  }
  identity_ = accepted.identity;
  isWholeBatch_.clear();
  identityKnown_ = true;
  reader_ = std::move(reader);
  attached_ = true;
  rung_ = true;  // there may be changes that rang before we came
  receivedSaid_ = programmedSaid_ = 0;
  trouble_.clear();
}

void SubscriberImpl::detach(std::string why) {
  trouble_ = std::move(why);
  attached_ = false;
  socket_ = Socket();
  page_.reset();
  isWordDue_ = false;
  if (ahead_.any()) {
    lostReader_ = reader_;
    needSnapshot_ = true;
  }
  reader_.reset();
  outbox_.clear();
  questions_.clear();
  reports_.clear();
  rung_ = false;
  // Reports on the snapshot are lost with the connection; only a new one leads in step.
  if (inSnapshot_) needSnapshot_ = true;
  inSnapshot_ = false;
  unreported_ = {};
  nextAttempt_ = std::max(nextAttempt_, Clock::now() + retryInterval / 10);
}

void SubscriberImpl::catchUp() {
  rung_ = false;
  const auto reader = reader_;
  const auto began = Clock::now();
  const uint64_t before = sequence_;
  while (attached_ && readOnce()) {  // a handler that flushes may find the agent gone
  }
  if (ahead_.any()) return;
  if (sequence_ != before) {
    isBatchLarge_ = readsAhead_ && page_ && page_->words().shownAhead > before;
  }
  pace_.ringIs(began, sequence_ != before);
}

bool SubscriberImpl::anyAhead() const {
  if (!readsAhead_ || ahead_.areBlockedAfter(sequence_)) return false;
  const uint64_t shown = page_->words().shownAhead.load(std::memory_order_acquire);
  return shown > (ahead_.any() ? ahead_.upTo() : sequence_);
}

// Passes on changes that are yet to be committed; whether there were any.
bool SubscriberImpl::maybeReadAhead() {
  if (!anyAhead() || needSnapshot_ || inSnapshot_) return false;
  const auto reader = reader_;
  const Brine::Reader::State state = reader->state();
  if (state.committed != sequence_ || state.typesVersion != typesVersion_) return false;
  const auto now = Clock::now();
  pace_.aheadIs(now);
  ahead_.begin(sequence_, now);
  const auto reached = reader->followAhead(ahead_.upTo(), page_->words().shownAhead,
                                           [this](auto changes) { passOnAhead(changes); });
  if (!reached) ahead_.blockAfter(sequence_);
  if (attached_ && !ahead_.areBlockedAfter(sequence_)) ahead_.upTo() = *reached;
  return attached_;
}

// A record that is no row waits for its commit, and all behind it: it may be the first row of a
// table that is yet to be known.
void SubscriberImpl::passOnAhead(std::span<const Brine::FollowedChange> changes) {
  const auto isRow = [this](const auto& change) { return tables_.contains(change.table); };
  if (!std::ranges::all_of(changes, isRow)) ahead_.blockAfter(sequence_);
  if (!ahead_.areBlockedAfter(sequence_)) passOn(changes, ahead_.upTo());
}

// What else the handler does waits for the commit, ports that go down among it.
void SubscriberImpl::maybeGiveUpAhead() {
  if (!ahead_.areOverdue(Clock::now())) return;
  ahead_.blockAfter(sequence_);
  needSnapshot_ = true;
  rung_ = true;
}

// Whether the changes that were passed on ahead are committed now. Another agent gives their
// numbers out again, but not before this one has hung up.
bool SubscriberImpl::maybeTakeAhead(uint64_t committed) {
  if (!ahead_.any() || committed == sequence_) return false;
  if (!reader_->cameTrue(sequence_, ahead_.upTo())) {
    needSnapshot_ = true;
    return false;
  }
  receiveAll();
  sequence_ = ahead_.upTo();
  for (const auto& report : ahead_.end()) {
    if (attached_) addReport(report.packed());
  }
  return true;
}

void SubscriberImpl::tellAheadLost() {
  const auto reader = std::exchange(lostReader_, nullptr);
  if (!reader) return;
  // A change that was passed on may have been replaced by one that was not.
  whole_ = {{sequence_ + 1, reader->lastWritten(ahead_.upTo())}};
  ahead_.end();
  handler_.aheadLost(Commit(*this, *reader));
  whole_.clear();
  handler_.rowsEnd();
}

// Whether changes have come, and were passed on. Changes ahead come one after another: to stop
// looking between them would cost the agent a ring.
bool SubscriberImpl::maybeLookForChanges() {
  if (!attached_ || !page_ || !outbox_.empty()) return false;
  DoorbellWords& words = page_->words();
  if (words.worthLooking == 0) return false;
  const bool isMade = readsAhead_ && pace_.isInTheMaking();
  const bool mayNap = open_.empty() && (isMade || isBatchLarge_);
  const bool mayLook = isMade || pace_.comeWithin(worthLooking_);
  if (!mayNap && !mayLook) return false;
  words.subscriberLooks = 1;
  if (isMade && words.agentProcessor == Vela::currentProcessor()) Vela::leaveProcessor();
  const auto isOver = [&] { return anyChanges() || anyAhead() || words.worthLooking == 0; };
  if (mayLook) Vela::lookFor(worthLooking_, isOver);
  while (!anyChanges() && maybeReadAhead()) Vela::lookFor(worthLooking_, isOver);
  if (mayNap && attached_ && !anyChanges()) nap();
  if (!attached_) return false;
  words.subscriberLooks = 0;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  const bool isSeen = anyChanges();
  if (isSeen || rung_) catchUp();
  return attached_ && questions_.empty() && (isSeen || mayNap);
}

// While other threads want the processor, or for longer than is worth a processor. A ring does not
// do as well: the system wakes its receiver on the processor of the batch's own thread, where it
// waits for the batch to end.
void SubscriberImpl::nap() {
  constexpr timespec moment{.tv_sec = 0, .tv_nsec = 50000};
  pollfd watched{socket_.descriptor(), POLLIN, 0};
  ::ppoll(&watched, 1, &moment, nullptr);
  receiveAll();
}

// Passes on the changes until now; true when there may be more.
bool SubscriberImpl::readOnce() {
  const Brine::Reader::State state = reader_->state();
  if (state.typesVersion != typesVersion_) learnTables();
  if (sequence_ < state.trimmed || sequence_ > state.committed) needSnapshot_ = true;
  const bool anyAhead = !needSnapshot_ && maybeTakeAhead(state.committed);
  if (needSnapshot_) {
    takeSnapshot();
    return true;
  }
  if (sequence_ == state.committed && !anyAhead) return false;
  std::optional<uint64_t> reached;
  if (attached_) {
    reached = reader_->follow(sequence_, state.committed,
                              [this](auto changes) { passOn(changes, sequence_); });
  }
  if (reached && attached_) tellWholeCommit();
  whole_.clear();
  if (reached || !attached_) handler_.rowsEnd();
  if (!attached_) return false;
  if (reached) {
    sequence_ = *reached;
  } else {
    needSnapshot_ = true;  // the rows themselves tell
  }
  return true;
}

void SubscriberImpl::learnTables() {
  const uint64_t version = reader_->state().typesVersion;
  const auto snapshot =
      reader_->snapshot([](std::string_view table) { return table == typesTable; });
  std::map<uint32_t, std::pair<std::string, TableRecord>> present;
  const size_t damaged = snapshot->forEach(typesTable, [&](Brine::Bytes key, Brine::Bytes value) {
    auto record = TableRecord::decode(Brine::asText(value));
    if (record) present.emplace(record->number, std::pair(Brine::asText(key), std::move(*record)));
    return true;
  });
  if (damaged > 0) {
    throw Detached{"the list of tables in shared memory is damaged; restart the agent"};
  }
  // Numbers of another store mean other tables.
  if (needSnapshot_ && typesVersion_ == UINT64_MAX) removeTablesBut({});
  removeTablesBut(present);
  for (const auto& [number, table] : present) {
    if (!tables_.contains(number)) addTable(table.first, table.second);
    maybeRetype(number, table.second);
  }
  typesVersion_ = version;
}

// Rows of before are rows of the new type, too.
void SubscriberImpl::maybeRetype(uint32_t number, const TableRecord& record) {
  TableRecord& known = records_[number];
  if (known.typeName == record.typeName && known.definition == record.definition) return;
  known = record;
  FollowedTable& table = *tables_[number];
  table.type = typeOf(table.name, record);
  handler_.tableRetyped(table);
}

void SubscriberImpl::removeTablesBut(
    const std::map<uint32_t, std::pair<std::string, TableRecord>>& present) {
  for (auto at = tables_.begin(); at != tables_.end();) {
    if (present.contains(at->first)) {
      ++at;
      continue;
    }
    const FollowedTable* table = at->second;
    records_.erase(at->first);
    at = tables_.erase(at);
    handler_.tableRemoved(*table);
  }
}

void SubscriberImpl::addTable(const std::string& name, const TableRecord& record) {
  auto table = std::make_unique<FollowedTable>();
  table->name = name;
  table->type = typeOf(name, record);
  tables_[record.number] = table.get();
  records_[record.number] = record;
  allTables_.push_back(std::move(table));
  handler_.tableAdded(*allTables_.back());
}

// Null when it cannot be read. The handler refuses the rows then: unreported, they would cost the
// agent its time-out.
std::shared_ptr<const TableType> SubscriberImpl::typeOf(const std::string& name,
                                                        const TableRecord& record) {
  try {
    return TableType::compile(record.typeName, record.definition);
  } catch (const TypeError& error) {
    trouble_ = "cannot read the type of table " + name + ": " + error.what();
    return nullptr;
  }
}

void SubscriberImpl::takeSnapshot() {
  const auto snapshot =
      reader_->snapshot([](std::string_view table) { return table.starts_with(rowTablePrefix); },
                        Brine::Reader::Attachments::leftOut);
  // It may show rows of tables that we have yet to learn of.
  if (reader_->state().typesVersion != typesVersion_) return;
  for (const auto& [number, table] : tables_) {
    const size_t damaged =
        snapshot->forEach(rowTable(table->name), [](auto, auto) { return false; });
    if (damaged > 0) throw Detached{damagedText(table->name, damaged)};
  }
  needSnapshot_ = false;
  failed_.clear();
  inSnapshot_ = true;
  delivered_ = false;
  snapshotSequence_ = snapshot->sequence();
  unreported_.clear();
  open_.clear();
  ahead_.end();
  passOn(*snapshot);
  sequence_ = snapshotSequence_;
  delivered_ = true;
}

void SubscriberImpl::passOn(const Brine::Snapshot& snapshot) {
  const auto forEachRow = [&](const auto& visit) {
    for (const auto& [number, table] : tables_) {
      const FollowedTable* of = table;
      snapshot.forEachRecord(rowTable(of->name), [&](const Brine::Record& row) {
        visit(of, row);
        return true;
      });
    }
  };
  forEachRow(
      [this](const FollowedTable*, const Brine::Record& row) { unreported_.insert(row.sequence); });
  handler_.snapshotBegin();
  forEachRow([this](const FollowedTable* table, const Brine::Record& row) {
    RowChange change;
    change.table = table;
    change.key = Brine::asText(row.key);
    change.value = Brine::asText(row.value);
    change.entryHandle = row.owner;
    change.sequence = row.sequence;
    handler_.rowChanged(change);
  });
  handler_.snapshotEnd();
  handler_.rowsEnd();
}

void SubscriberImpl::passOn(std::span<const Brine::FollowedChange> changes, uint64_t& reached) {
  std::array<RowChange, 32> rows;
  while (!changes.empty()) {
    const size_t count = std::min(changes.size(), rows.size());
    for (size_t i = 0; i < count; ++i) {
      rows[i] = rowChange(changes[i]);
      if (!rows[i].table) maybeNoteWhole(changes[i]);
    }
    changes = changes.subspan(count);
    const std::span<const RowChange> next(rows.data(), count);
    if (std::ranges::all_of(next, &RowChange::table)) handler_.rowsComing(next);
    for (size_t i = 0; i < count; ++i) {
      if (!attached_) return;
      passOn(rows[i]);
      reached = rows[i].sequence;
    }
  }
}

// It comes behind the changes that it names, which it is committed with.
void SubscriberImpl::maybeNoteWhole(const Brine::FollowedChange& change) {
  if (change.deleted) return;
  const auto [known, isNew] = isWholeBatch_.try_emplace(change.table, false);
  if (isNew) known->second = reader_->tableNumber(wholeBatchTable) == change.table;
  if (known->second) whole_ = wholeBatchRanges(Brine::asText(change.value));
}

void SubscriberImpl::tellWholeCommit() {
  if (!whole_.empty()) handler_.wholeCommit(Commit(*this, *reader_));
}

bool SubscriberImpl::Commit::has(uint64_t sequence) const {
  return std::ranges::any_of(subscriber_.whole_, [&](const auto& range) {
    return range.first <= sequence && sequence <= range.second;
  });
}

bool SubscriberImpl::Commit::visitFormer(const std::function<void(const RowChange&)>& visit) const {
  const auto visitRow = [&](const Brine::FollowedChange& former) {
    const RowChange change = subscriber_.rowChange(former);
    if (change.table) visit(change);
  };
  return std::all_of(subscriber_.whole_.rbegin(), subscriber_.whole_.rend(),
                     [&](const auto& range) {
                       return reader_.visitTakenBack(range.first, range.second, visitRow);
                     });
}

RowChange SubscriberImpl::rowChange(const Brine::FollowedChange& from) const {
  RowChange change;
  const auto table = tables_.find(from.table);
  if (table != tables_.end()) change.table = table->second;
  change.key = Brine::asText(from.key);
  change.deleted = from.deleted;
  change.unchanged = from.unchanged;
  change.value = Brine::asText(from.value);
  change.entryHandle = from.owner;
  change.sequence = from.sequence;
  return change;
}

void SubscriberImpl::passOn(const RowChange& change) {
  if (!change.table) {
    // A record that is no row, or a row of a table that handler_.tableRemoved() has told of.
    if (change.deleted && change.entryHandle != 0) {
      report(change.entryHandle, change.sequence, 0, {});
    }
    return;
  }
  open_.add(change.sequence);
  handler_.rowChanged(change);
}

void SubscriberImpl::report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
                            std::string_view message) {
  const bool isFailure = errorCode != 0;
  if (isFailure) failed_.insert(entryHandle);
  const bool isMended = !isFailure && !failed_.empty() && failed_.erase(entryHandle) > 0;
  const auto settled = open_.settle(sequence);
  if (!attached_) return;
  // Of a change that was passed on ahead, and given up.
  const bool isUnknown = settled == OpenChanges::Settled::unknown;
  if (isUnknown && sequence > (inSnapshot_ ? snapshotSequence_ : sequence_)) return;
  const bool isInOrder = settled == OpenChanges::Settled::inOrder;
  // What failed, or had failed before, has a report of its own besides the word.
  if (isInOrder && !inSnapshot_ && !isFailure && !isMended) return;
  if (ahead_.any() && sequence > sequence_) {
    return ahead_.hold({entryHandle, sequence, errorCode, message});
  }
  if (inSnapshot_) unreported_.erase(sequence);
  addReport({entryHandle, sequence, errorCode, message});
}

void SubscriberImpl::addReport(const PackedReport& report) {
  reports_.add(report);
  if (reports_.full()) flush();
}

// Reports come first: behind them, a notice would have to wait for room.
bool SubscriberImpl::sendNotice(const Notice& notice) {
  constexpr size_t mostMessage = maxMessageBytes - 64;
  if (!attached_ || !outbox_.empty() || notice.message.size() > mostMessage) return false;
  return socket_.send(NoticeMessage{notice}.encode()) == Socket::Sent::all;
}

void SubscriberImpl::flush() {
  if (!attached_) return;
  try {
    queueReports();
    maybeSayInStep();
    sendQueued();
  } catch (const Detached& detached) {
    detach(detached.why);
  }
}

// After the failures among them.
void SubscriberImpl::queueProgrammed() {
  if (needSnapshot_ || inSnapshot_) return;
  const uint64_t programmed = open_.settledUpTo(sequence_);
  if (programmed <= programmedSaid_) return;
  programmedSaid_ = programmed;
  if (programmed == sequence_) receivedSaid_ = sequence_;  // it says that, too
  isWordDue_ = page_ != nullptr;
  if (!page_) outbox_.push_back(ProgrammedMessage{programmed}.encode());
}

// By the page, and by a message when the agent does not look there.
void SubscriberImpl::maybeStoreWord() {
  if (!isWordDue_ || !outbox_.empty()) return;
  isWordDue_ = false;
  DoorbellWords& words = page_->words();
  words.programmed = programmedSaid_;
  if (words.agentLooks != 0) return;
  outbox_.push_back(ProgrammedMessage{programmedSaid_}.encode());
  sendQueued();
}

// Also says, without a report, how far the changes were read, so that former rows can go.
void SubscriberImpl::queueReports() {
  if (reports_.count() == 0) queueProgrammed();
  if (reports_.count() == 0 && sequence_ == receivedSaid_) return;
  const uint8_t flags = inSnapshot_ ? ReportsMessage::takingSnapshot : 0;
  // Before a snapshot is through, the sequence number may be another store's.
  const bool known = !needSnapshot_ && (!inSnapshot_ || delivered_);
  outbox_.push_back(reports_.finish(known ? sequence_ : 0, flags));
  receivedSaid_ = sequence_;
  queueProgrammed();
}

void SubscriberImpl::maybeSayInStep() {
  if (!inSnapshot_ || !delivered_ || !unreported_.empty()) return;
  inSnapshot_ = false;
  unreported_ = {};
  queueReports();
  outbox_.push_back(InStepMessage{snapshotSequence_}.encode());
}

void SubscriberImpl::sendQueued() {
  while (!outbox_.empty()) {
    const auto sent = socket_.send(outbox_.front());
    if (sent == Socket::Sent::gone) throw Detached{"the agent hung up"};
    if (sent == Socket::Sent::wouldBlock) return;  // with the next follow()
    outbox_.pop_front();
  }
  maybeStoreWord();
}

}  // namespace

std::unique_ptr<Subscriber> Subscriber::create(std::string stateDirectory, std::string name,
                                               SubscriberHandler& handler) {
  return std::make_unique<SubscriberImpl>(std::move(stateDirectory), std::move(name), handler);
}

}  // namespace Lattice
