#include "platform/lattice/Subscriber.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <unordered_set>
#include <vector>

#include "platform/brine/Store.h"
#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"

namespace Lattice {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds retryInterval{100};
// How much of the journal is taken from one snapshot: the store's pages are released before the
// handler, which may be slow, sees the changes.
constexpr size_t journalBytesAtOnce = size_t{4} << 20;

// The rows of a snapshot, copied for the same reason.
struct CopiedRow {
  const FollowedTable* table;
  size_t keyAt;
  uint32_t keySize;
  uint32_t valueSize;
  uint64_t entryHandle;
  uint64_t sequence;
};

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
 public:
  SubscriberImpl(std::string directory, std::string name, SubscriberHandler& handler)
      : directory_(std::move(directory)),
        name_(std::move(name)),
        handler_(handler),
        buffer_(maxMessageBytes, '\0') {}

  void follow(std::chrono::milliseconds timeout) override;
  const std::string& trouble() const override { return trouble_; }
  bool attached() const override { return attached_; }
  void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
              std::string_view message) override;
  void flush() override;
  uint64_t sequence() const override { return sequence_; }
  int descriptor() const override { return attached_ ? socket_.descriptor() : -1; }
  bool sending() const override { return !outbox_.empty(); }

 private:
  void step(Clock::time_point deadline);
  void waitReadable(Clock::time_point until);
  bool attachBy(Clock::time_point deadline);
  void sendAttach();
  void receiveAll();
  void handleMessage(std::string_view message);
  void handleAttached(const AttachedMessage& attached);
  void detach(std::string why);

  void catchUp();
  bool readOnce();
  void learnTables(Brine::Snapshot& snapshot, uint64_t typesVersion);
  void removeTablesBut(const std::map<uint32_t, std::pair<std::string, TableRecord>>& present);
  void addTable(const std::string& name, const TableRecord& record);
  void takeSnapshot(std::unique_ptr<Brine::Snapshot> snapshot, uint64_t sequence);
  void copyRows(Brine::Snapshot& snapshot, std::vector<CopiedRow>& rows, std::string& bytes);
  bool copyJournal(Brine::Snapshot& snapshot, uint64_t last, std::vector<std::string>& records);
  void passOn(const std::vector<std::string>& records);
  void passOn(const JournalChange& change);

  void maybeSayInStep();
  void queueReports();
  void sendQueued();

  const std::string directory_;
  const std::string name_;
  SubscriberHandler& handler_;
  std::string trouble_ = "not attached yet";

  // The connection.
  Socket socket_;
  bool attached_ = false;
  Clock::time_point nextAttempt_{};
  std::string buffer_;
  std::deque<std::string> outbox_;
  ReportsWriter reports_;
  uint64_t receivedSaid_ = 0;
  std::unique_ptr<Brine::Reader> reader_;
  bool rung_ = false;

  // What is known; survives a detachment.
  StoreIdentity identity_{};
  bool identityKnown_ = false;
  uint64_t sequence_ = 0;
  uint64_t typesVersion_ = UINT64_MAX;
  bool needSnapshot_ = true;
  std::map<uint32_t, const FollowedTable*> tables_;  // by number
  std::vector<std::unique_ptr<FollowedTable>> allTables_;
  // Entries that are not programmed as the agent has them. An agent that dies may not have heard of
  // them, and the next one does not know; it hears of them with a snapshot.
  std::unordered_set<uint64_t> failed_;

  // The snapshot that is being reported on.
  bool inSnapshot_ = false;
  bool delivered_ = false;  // all its rows were passed on
  uint64_t snapshotSequence_ = 0;
  std::unordered_set<uint64_t> unreported_;  // sequence numbers of its rows
};

void SubscriberImpl::follow(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  try {
    step(deadline);
  } catch (const Detached& detached) {
    detach(detached.why);
  } catch (const Brine::StoreError& error) {
    detach(error.what());
  }
}

void SubscriberImpl::step(Clock::time_point deadline) {
  if (!attached_ && !attachBy(deadline)) return;
  queueReports();
  sendQueued();
  receiveAll();
  if (!rung_) {
    waitReadable(deadline);
    receiveAll();
  }
  if (rung_) catchUp();
  if (!attached_) return;
  queueReports();
  maybeSayInStep();
  sendQueued();
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
  if (!identityKnown_ || needSnapshot_) attach.identity = {};
  if (socket_.send(attach.encode()) != Socket::Sent::all) throw Detached{"the agent hung up"};
}

void SubscriberImpl::receiveAll() {
  std::string_view message;
  for (;;) {
    switch (socket_.receive(buffer_, &message)) {
      case Socket::Received::nothing:
        return;
      case Socket::Received::gone:
        throw Detached{"the agent hung up"};
      case Socket::Received::oversized:
        throw Detached{"the agent sent an oversized message"};
      case Socket::Received::message:
        handleMessage(message);
    }
  }
}

void SubscriberImpl::handleMessage(std::string_view message) {
  if (const auto refused = RefusedMessage::decode(message)) {
    throw Detached{"the agent refuses: " + std::string(refused->reason)};
  }
  if (attached_ && RingMessage::decode(message)) {
    rung_ = true;
  } else if (const auto accepted = AttachedMessage::decode(message); accepted && !attached_) {
    handleAttached(*accepted);
  } else {
    throw Detached{"the agent sent a message that this program does not know"};
  }
}

void SubscriberImpl::handleAttached(const AttachedMessage& accepted) {
  if (!identityKnown_ || accepted.identity != identity_) {
    needSnapshot_ = true;
    typesVersion_ = UINT64_MAX;
  }
  identity_ = accepted.identity;
  identityKnown_ = true;
  reader_ = Brine::Reader::open(directory_);
  attached_ = true;
  rung_ = true;  // there may be changes that rang before we came
  receivedSaid_ = 0;
  trouble_.clear();
}

void SubscriberImpl::detach(std::string why) {
  trouble_ = std::move(why);
  attached_ = false;
  socket_ = Socket();
  reader_.reset();
  outbox_.clear();
  reports_.clear();
  rung_ = false;
  // Reports on the snapshot are lost with the connection; only a new one leads in step.
  if (inSnapshot_) needSnapshot_ = true;
  inSnapshot_ = false;
  unreported_.clear();
  nextAttempt_ = std::max(nextAttempt_, Clock::now() + retryInterval / 10);
}

void SubscriberImpl::catchUp() {
  rung_ = false;
  while (attached_ && readOnce()) {  // a handler that flushes may find the agent gone
  }
}

// Passes on the changes that one look at the store shows; true when there are more.
bool SubscriberImpl::readOnce() {
  std::vector<std::string> records;
  auto snapshot = reader_->snapshot();
  const auto bytes = snapshot->get(metaTable, Brine::asBytes(JournalState::key));
  const auto state = bytes ? JournalState::decode(Brine::asText(*bytes)) : std::nullopt;
  if (!state) return false;  // the agent has not written anything yet
  learnTables(*snapshot, state->typesVersion);
  if (sequence_ < state->trimmedUpTo || sequence_ > state->lastSequence) needSnapshot_ = true;
  if (needSnapshot_) {
    takeSnapshot(std::move(snapshot), state->lastSequence);
    return true;
  }
  const bool more = copyJournal(*snapshot, state->lastSequence, records);
  snapshot.reset();
  passOn(records);
  return more || needSnapshot_;
}

void SubscriberImpl::learnTables(Brine::Snapshot& snapshot, uint64_t typesVersion) {
  if (typesVersion == typesVersion_) return;
  std::map<uint32_t, std::pair<std::string, TableRecord>> present;
  const size_t damaged = snapshot.forEach(typesTable, [&](Brine::Bytes key, Brine::Bytes value) {
    auto record = TableRecord::decode(Brine::asText(value));
    if (record) present.emplace(record->number, std::pair(Brine::asText(key), std::move(*record)));
    return true;
  });
  if (damaged > 0)
    throw Detached{"the list of tables in shared memory is damaged; restart the agent"};
  // Numbers of another store mean other tables.
  if (needSnapshot_ && typesVersion_ == UINT64_MAX) removeTablesBut({});
  removeTablesBut(present);
  for (const auto& [number, table] : present) {
    if (!tables_.contains(number)) addTable(table.first, table.second);
  }
  typesVersion_ = typesVersion;
}

void SubscriberImpl::removeTablesBut(
    const std::map<uint32_t, std::pair<std::string, TableRecord>>& present) {
  for (auto at = tables_.begin(); at != tables_.end();) {
    if (present.contains(at->first)) {
      ++at;
      continue;
    }
    const FollowedTable* table = at->second;
    at = tables_.erase(at);
    handler_.tableRemoved(*table);
  }
}

void SubscriberImpl::addTable(const std::string& name, const TableRecord& record) {
  auto table = std::make_unique<FollowedTable>();
  table->name = name;
  try {
    table->type = TableType::compile(record.typeName, record.definition);
  } catch (const TypeError& error) {
    // The handler refuses its rows: unreported, they would cost the agent its time-out.
    trouble_ = "cannot read the type of table " + name + ": " + error.what();
  }
  tables_[record.number] = table.get();
  allTables_.push_back(std::move(table));
  handler_.tableAdded(*allTables_.back());
}

void SubscriberImpl::takeSnapshot(std::unique_ptr<Brine::Snapshot> snapshot, uint64_t sequence) {
  std::vector<CopiedRow> rows;
  std::string bytes;
  copyRows(*snapshot, rows, bytes);
  snapshot.reset();

  needSnapshot_ = false;
  failed_.clear();
  inSnapshot_ = true;
  delivered_ = false;
  snapshotSequence_ = sequence;
  unreported_.clear();
  for (const CopiedRow& row : rows) unreported_.insert(row.sequence);
  handler_.snapshotBegin();
  for (const CopiedRow& row : rows) {
    RowChange change;
    change.table = row.table;
    change.key = std::string_view(bytes).substr(row.keyAt, row.keySize);
    change.value = std::string_view(bytes).substr(row.keyAt + row.keySize, row.valueSize);
    change.entryHandle = row.entryHandle;
    change.sequence = row.sequence;
    handler_.rowChanged(change);
  }
  handler_.snapshotEnd();
  sequence_ = sequence;
  delivered_ = true;
}

void SubscriberImpl::copyRows(Brine::Snapshot& snapshot, std::vector<CopiedRow>& rows,
                              std::string& bytes) {
  for (const auto& [number, table] : tables_) {
    const size_t damaged = snapshot.forEach(rowTable(table->name), [&](Brine::Bytes key,
                                                                       Brine::Bytes value) {
      const auto row = StoredRow::decode(Brine::asText(value));
      if (!row) return true;  // not a row; the agent writes it again or never knew it
      rows.push_back({table, bytes.size(), static_cast<uint32_t>(key.size()),
                      static_cast<uint32_t>(row->value.size()), row->entryHandle, row->sequence});
      bytes.append(Brine::asText(key));
      bytes.append(row->value);
      return true;
    });
    if (damaged > 0) throw Detached{damagedText(table->name, damaged)};
  }
}

// True when there is more than was copied.
bool SubscriberImpl::copyJournal(Brine::Snapshot& snapshot, uint64_t last,
                                 std::vector<std::string>& records) {
  if (sequence_ == last) return false;
  size_t size = 0;
  bool more = false;
  const size_t damaged = snapshot.forEach(
      journalTable,
      [&](Brine::Bytes, Brine::Bytes value) {
        more = size > journalBytesAtOnce;
        if (more) return false;
        records.emplace_back(Brine::asText(value));
        size += value.size();
        return true;
      },
      Brine::asBytes(bigEndian(sequence_ + 1)));
  if (damaged > 0) needSnapshot_ = true;  // the rows themselves tell
  return more;
}

void SubscriberImpl::passOn(const std::vector<std::string>& records) {
  for (const std::string& record : records) {
    std::string_view rest = record;
    while (!rest.empty()) {
      const auto change = JournalChange::takeFrom(rest);
      if (!change || change->sequence <= sequence_) {
        needSnapshot_ = true;  // a damaged record; the rows themselves tell
        return;
      }
      passOn(*change);
      sequence_ = change->sequence;
    }
  }
}

void SubscriberImpl::passOn(const JournalChange& from) {
  const auto table = tables_.find(from.table);
  if (table == tables_.end()) {  // removed since; handler_.tableRemoved() has told of its rows
    if (from.flags & JournalChange::deleted) report(from.entryHandle, from.sequence, 0, {});
    return;
  }
  RowChange change;
  change.table = table->second;
  change.key = from.key;
  change.deleted = from.flags & JournalChange::deleted;
  change.unchanged = from.flags & JournalChange::unchanged;
  if (!change.deleted) change.value = from.value;
  change.entryHandle = from.entryHandle;
  change.sequence = from.sequence;
  handler_.rowChanged(change);
}

void SubscriberImpl::report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
                            std::string_view message) {
  if (errorCode != 0) {
    failed_.insert(entryHandle);
  } else if (!failed_.empty()) {
    failed_.erase(entryHandle);
  }
  if (!attached_) return;
  reports_.add({entryHandle, sequence, errorCode, message});
  if (inSnapshot_) unreported_.erase(sequence);
  if (reports_.full()) flush();
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

// Also says, without a report, how far the journal was read, so that it can be trimmed.
void SubscriberImpl::queueReports() {
  if (reports_.count() == 0 && sequence_ == receivedSaid_) return;
  const uint8_t flags = inSnapshot_ ? ReportsMessage::takingSnapshot : 0;
  // Before a snapshot is through, the sequence number may be another store's.
  const bool known = !needSnapshot_ && (!inSnapshot_ || delivered_);
  outbox_.push_back(reports_.finish(known ? sequence_ : 0, flags));
  receivedSaid_ = sequence_;
}

void SubscriberImpl::maybeSayInStep() {
  if (!inSnapshot_ || !delivered_ || !unreported_.empty()) return;
  inSnapshot_ = false;
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
}

}  // namespace

std::unique_ptr<Subscriber> Subscriber::create(std::string stateDirectory, std::string name,
                                               SubscriberHandler& handler) {
  return std::make_unique<SubscriberImpl>(std::move(stateDirectory), std::move(name), handler);
}

}  // namespace Lattice
