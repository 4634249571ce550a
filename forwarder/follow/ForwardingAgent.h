// The forwarding agent itself: programs the rows of the agent's tables, and reports on each change.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "forwarder/counters/FlowBook.h"
#include "forwarder/follow/ReportQueue.h"
#include "forwarder/follow/RowPlane.h"
#include "forwarder/follow/Rules.h"
#include "forwarder/follow/TableRules.h"
#include "forwarder/table/ProgrammedTable.h"
#include "platform/lattice/Subscriber.h"

namespace Forwarder {

// The result of a change. A row held as it is, and the deletion of a row not held, need no
// programming: they are unchanged and cannot fail. So the agent's rollback of a failed write always
// succeeds.
enum class Outcome : uint8_t { inserted, replaced, deleted, unchanged, failed, full, unreadable };
constexpr size_t outcomeCount = 7;
const char* outcomeName(Outcome outcome);

// Threads: one at a time.
// Errors: a change that cannot be programmed leaves the row as it was; its report says why. Nothing
// is thrown but by the functions that are handed in.
// Lifetime: `reports` outlives the agent. A table lives until it is removed, or comes back with
// another type; tablesVersion() then moves. It moves also when a table that stays gets another
// type.
class ForwardingAgent final : public Lattice::SubscriberHandler {
 public:
  explicit ForwardingAgent(ReportQueue& reports) : reports_(reports) {}

  const Rules& rules() const { return rules_; }
  void rulesIs(Rules rules);  // counts for changes from now on
  using Log = std::function<void(const std::string& line)>;
  void logIs(Log log) { log_ = std::move(log); }  // called for each change; may be empty
  // Called between two changes, once in a thousand or so. Its exceptions leave rowChanged().
  void progressIs(std::function<void()> progress) { progress_ = std::move(progress); }
  // Executes the rows; outlives the agent, and is set before the first change. Reports then wait
  // for the end of a group of changes.
  void planeIs(RowPlane* plane) { plane_ = plane; }
  // Gives the plane all rows if it is to execute another program; to be called now and then, since
  // a program may come without changes of rows.
  void checkPlane();
  // Called when a row has set counts, before its report.
  void countsSetIs(std::function<void()> countsSet) { countsSet_ = std::move(countsSet); }

  const ProgrammedTable* table(const std::string& name) const;  // null when there is no such table
  std::vector<const ProgrammedTable*> tables() const;           // in the order of their names
  uint64_t tablesVersion() const { return tablesVersion_; }     // moves as tables come and go
  uint64_t changeCount(Outcome outcome) const { return changes_[static_cast<size_t>(outcome)]; }
  uint64_t snapshotCount() const { return snapshots_; }  // complete ones
  uint64_t sweptRowCount() const { return sweptRows_; }  // removed since a snapshot lacked them

  FlowBook& flows() { return flows_; }  // the counts of rows, to be published
  bool hasCounters() const;             // some table has a counter
  void republishFlows();                // puts the counts of all rows into flows()

  void tableAdded(const Lattice::FollowedTable& table) override;
  void tableRemoved(const Lattice::FollowedTable& table) override;
  void tableRetyped(const Lattice::FollowedTable& table) override;
  void snapshotBegin() override;
  void snapshotEnd() override;
  void rowChanged(const Lattice::RowChange& change) override;
  void rowsComing(std::span<const Lattice::RowChange> changes) override;
  void wholeCommit(const Lattice::WholeCommit& commit) override;
  void aheadLost(const Lattice::WholeCommit& lost) override;
  void rowsEnd() override;
  void rowsReported() override {
    if (plane_) plane_->settle();
  }
  Lattice::Answer answer(const Lattice::Question& question) override;

 private:
  struct Held {
    ProgrammedTable table;
    TableRules rules;
  };
  struct Verdict {
    Outcome outcome = Outcome::unchanged;
    uint16_t errorCode = 0;
    std::string message;
    bool mayBecomeTrue = false;  // see PlaneVerdict
  };
  // A change that waits for others of its group.
  struct Waiting {
    const Lattice::FollowedTable* table;
    std::string key;
    std::string value;
    bool deleted;
    uint64_t entryHandle;
    uint64_t sequence;
  };
  struct Report {
    uint64_t entryHandle;
    uint64_t sequence;
    uint16_t errorCode;
    std::string message;
  };
  // A new row of a snapshot in a table that is full until the snapshot's end.
  struct Deferred {
    std::string table;
    std::string key;
    std::string value;
    uint64_t entryHandle;
    uint64_t sequence;
  };

  Held& heldTable(const Lattice::FollowedTable& followed);
  void forgetFollowed(const Held& held);
  bool maybeDefer(const Held& held, const Lattice::RowChange& change);
  void sweep(ProgrammedTable& table, bool isLast);
  void program(Held& held, const Lattice::RowChange& change, bool mayWait = true);
  void beginGroup();
  void decideRows();
  void takeBackAll(const Lattice::WholeCommit& commit);
  void takeBack(const Lattice::RowChange& former);
  void retryWaiting(bool mayWait);
  void sweepAll();
  void report(const Lattice::RowChange& change, Verdict&& verdict);
  void handleFlow(const ProgrammedTable& table, const StoredRow& row, uint64_t entryHandle,
                  const FlowBook::CounterColumns& former);
  PlaneVerdict writePlane(const ProgrammedTable& table, const Lattice::RowChange& change,
                          const StoredRow* former);
  static Verdict refusedByPlane(const ProgrammedTable& table, const PlaneVerdict& verdict);
  Verdict writeRow(Held& held, const Lattice::RowChange& change);
  Verdict deleteRow(Held& held, std::string_view key);
  Verdict putRow(Held& held, const Lattice::RowChange& change, const StoredRow* former,
                 const FlowBook::CounterColumns& formerCounters);
  Verdict dropRow(Held& held, const StoredRow& row);
  std::optional<Verdict> maybeFail(const Held& held, std::string_view key);
  static std::string logLine(const ProgrammedTable& table, const Lattice::RowChange& change,
                             const Verdict& verdict);

  ReportQueue& reports_;
  RowPlane* plane_ = nullptr;
  bool isStale_ = false;  // as the plane said at the begin of the group
  bool inGroup_ = false;
  std::vector<Waiting> waiting_;
  std::vector<Report> due_;  // reports, once the plane has committed
  FlowBook flows_;
  Rules rules_;
  Log log_;
  std::function<void()> progress_;
  std::function<void()> countsSet_;
  unsigned changesSinceProgress_ = 0;
  std::map<std::string, std::unique_ptr<Held>> tables_;  // by name
  std::unordered_map<const Lattice::FollowedTable*, Held*> followed_;
  uint64_t tablesVersion_ = 1;
  uint32_t snapshotNumber_ = 0;  // of the newest one begun; rows keep the last that showed them
  bool inSnapshot_ = false;
  std::vector<Deferred> deferred_;
  uint64_t writes_ = 0;  // that needed programming; rules let each n-th fail
  std::array<uint64_t, outcomeCount> changes_{};
  uint64_t snapshots_ = 0;
  uint64_t sweptRows_ = 0;
};

}  // namespace Forwarder
