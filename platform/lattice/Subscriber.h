// The forwarding agent's side: follow the rows of another process's tables, program them, report.
// This is the interface a hardware vendor writes against; see docs/forwarding-agents.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/lattice/doorbell/Question.h"
#include "platform/lattice/types/TableType.h"

namespace Lattice {

// A table of the agent, as followers know it. Lives as long as the Subscriber.
struct FollowedTable {
  std::string name;
  // Another one after SubscriberHandler::tableRetyped().
  // Null when this program cannot read the definition; its rows are to be reported on all the same.
  std::shared_ptr<const TableType> type;
};

struct RowChange {
  const FollowedTable* table = nullptr;
  std::string_view key;    // packed key columns; valid during the call only
  std::string_view value;  // packed value columns; empty for a deletion
  bool deleted = false;
  bool unchanged = false;  // the row is as it was (or was not there to delete): just report on it
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
};

// Changes that make up one commit and stand or fall together: a Write with ROLLBACK_ON_ERROR or
// DATAPLANE_ATOMIC. Valid during the call that tells of it and the rowsEnd() behind that.
class WholeCommit {
 public:
  virtual ~WholeCommit() = default;
  virtual bool has(uint64_t sequence) const = 0;
  // Visits its rows as they were before, that of the last change first: as changes that bring them
  // back, and that nobody wants to hear of. Returns false when not all are known any more.
  virtual bool visitFormer(const std::function<void(const RowChange&)>& visit) const = 0;
};

// All calls come from within Subscriber::follow().
class SubscriberHandler {
 public:
  virtual ~SubscriberHandler() = default;
  virtual void tableAdded(const FollowedTable& table) = 0;
  virtual void tableRemoved(const FollowedTable& table) = 0;
  // Its type is another one now, of which its rows are rows as they stand: the columns are the
  // same; there may be more actions, and the others may have other names. For those who declare
  // Subscriber::learnsTypesIs().
  virtual void tableRetyped(const FollowedTable& table) { static_cast<void>(table); }
  // A whole picture follows as rowChanged() calls: rows that are not in it by snapshotEnd() are
  // gone.
  virtual void snapshotBegin() = 0;
  virtual void snapshotEnd() = 0;
  // Program it, and sooner or later report() on it, once. For those who declare
  // Subscriber::readsAheadIs() it may come before its commit, which rowsEnd() tells.
  virtual void rowChanged(const RowChange& change) = 0;
  // The next calls of rowChanged(), some dozen, unless the agent goes away: an opportunity to have
  // memory fetched that they will need. Nothing need be done.
  virtual void rowsComing(std::span<const RowChange> changes) { static_cast<void>(changes); }
  // The changes that came before their commit will not be committed, since the agent has gone:
  // make the rows as they were. rowsEnd() follows, and a snapshot from the next agent. Without the
  // agent's going, a snapshot takes the place of changes that are not committed as they came.
  virtual void aheadLost(const WholeCommit& lost) { static_cast<void>(lost); }
  // Among the changes since the last rowsEnd(), which comes next: for those who declare
  // Subscriber::appliesAtOnceIs().
  virtual void wholeCommit(const WholeCommit& commit) { static_cast<void>(commit); }
  // The changes since the last call make up whole commits, or were made as if they never were.
  // Before the reports on them are sent, but
  // for those that filled a message, and also when the agent has gone.
  virtual void rowsEnd() {}
  // The reports on these changes were sent: for work that nobody waits for.
  virtual void rowsReported() {}
  // A question of the agent's, after the changes that were committed before it. Nobody is asked
  // without Subscriber::answersQuestionsIs().
  virtual Answer answer(const Question& question) {
    static_cast<void>(question);
    return {6, "this forwarding agent does not answer questions"};
  }
};

// One thread uses it. Attaches, and attaches again whenever the agent goes away and comes back.
class Subscriber {
 public:
  // `stateDirectory` is the agent's. Neither agent nor directory need exist yet.
  static std::unique_ptr<Subscriber> create(std::string stateDirectory, std::string name,
                                            SubscriberHandler& handler);
  virtual ~Subscriber() = default;

  // Declares, from the next attaching on, that each commit takes effect at once: every packet sees
  // all of its changes or none, and a SubscriberHandler::wholeCommit() of which any change fails
  // has no effect. Without it the agent refuses Writes with DATAPLANE_ATOMIC. Agents that do not
  // know of this refuse to attach.
  virtual void appliesAtOnceIs(bool appliesAtOnce) = 0;

  // Declares, from the next attaching on, that SubscriberHandler::answer() answers questions.
  // Agents that do not know of this refuse to attach.
  virtual void answersQuestionsIs(bool answersQuestions) { static_cast<void>(answersQuestions); }
  // Declares, from the next attaching on, that these answers include those about last hits; needs
  // answersQuestionsIs(). Agents that do not know of this refuse to attach.
  virtual void tellsLastHitsIs(bool tellsLastHits) { static_cast<void>(tellsLastHits); }

  // Declares, from the next attaching on, that SubscriberHandler::tableRetyped() does what is due.
  // Without it the agent takes all rows of such a table out, and makes them again in a new table.
  // Agents that do not know of this refuse to attach.
  virtual void learnsTypesIs(bool learnsTypes) { static_cast<void>(learnsTypes); }

  // Declares that changes may come ahead of their commit, while the agent makes the rest of a
  // batch: the forwarding agent programs them then at the time in which it would only wait.
  virtual void readsAheadIs(bool readsAhead) { static_cast<void>(readsAhead); }

  // Waits for changes at most `timeout`, passes them on, and sends the reports gathered since.
  // Never throws for trouble with the agent or its files: it detaches, keeps its rows, and
  // tries again on a later call. trouble() then says why, else it is empty.
  virtual void follow(std::chrono::milliseconds timeout) = 0;
  virtual const std::string& trouble() const = 0;
  virtual bool attached() const = 0;

  // errorCode 0: programmed; else see P4Runtime/companion/ErrorCode.h. Sent with the next follow(),
  // or by flush(). Reports for an agent that went away are dropped. After dropped failures the
  // subscriber takes a snapshot from the next agent and reports the lasting failures on it.
  virtual void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
                      std::string_view message) = 0;
  virtual void flush() = 0;
  // News for controllers, sent at once; false when it could not be, and is lost: no agent is
  // attached, or its queue is full. A digest's message is its numbers bit behind bit in the order
  // of declaration, big-endian, filled up to whole bytes at the end; `digestId` is the one in the
  // P4Info. An entry is idle when no packet has met it for its time-out.
  virtual bool digest(uint32_t digestId, std::string_view message) {
    static_cast<void>(digestId), static_cast<void>(message);
    return false;
  }
  virtual bool idle(uint64_t entryHandle) { return static_cast<void>(entryHandle), false; }
  virtual uint64_t sequence() const = 0;  // passed on to the handler so far
  virtual int descriptor() const = 0;     // readable when follow() has something to do; -1: none
  // To wake up costs more than to program an entry: follow() stays awake so long for changes that
  // are likely to come. 0: never.
  virtual void lookForIs(std::chrono::microseconds most) = 0;
  // Whether reports wait for room in the socket: follow() goes on once descriptor() is writable.
  virtual bool sending() const { return false; }
};

}  // namespace Lattice
