// The forwarding agent itself: programs what the agent's tables say, and reports on each change.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "forwarder/FlowBook.h"
#include "forwarder/MatchTable.h"
#include "forwarder/ReportQueue.h"
#include "forwarder/Rules.h"
#include "forwarder/ValueCheck.h"
#include "platform/lattice/DirectColumns.h"
#include "platform/lattice/Subscriber.h"

namespace Forwarder {

// What became of a change. What needs no programming (a row held as it is, the deletion of one not
// held) is unchanged and cannot fail: so the agent's rollback of a failed write always succeeds.
enum class Outcome : uint8_t { inserted, replaced, deleted, unchanged, failed, full, unreadable };
constexpr size_t outcomeCount = 7;
const char* outcomeName(Outcome outcome);

// A table of the agent with the rows this forwarder holds of it.
class ProgrammedTable {
 public:
  // `type` may be null: then no row of the table can be read.
  ProgrammedTable(std::string name, std::shared_ptr<const Lattice::TableType> type);

  const std::string& name() const { return name_; }
  const Lattice::TableType* type() const { return type_.get(); }
  MatchTable* rows() const { return rows_.get(); }  // null without a type
  size_t rowCount() const { return rows_ ? rows_->rowCount() : 0; }
  bool counted() const { return counted_; }  // its type has a counter: each row has a flow

 private:
  friend class ForwardingAgent;
  const std::string name_;
  const std::shared_ptr<const Lattice::TableType> type_;
  bool counted_ = false;
  std::unique_ptr<const ValueCheck> valueCheck_;
  std::unique_ptr<MatchTable> rows_;
  // The rules for this table, so that programming a row looks none up by name.
  size_t capacity_ = SIZE_MAX;  // rows
  bool failing_ = false;
  std::vector<KeyRule> failingKeys_;
};

// One thread uses it. A change that fails leaves the row as it was.
class ForwardingAgent final : public Lattice::SubscriberHandler {
 public:
  explicit ForwardingAgent(ReportQueue& reports) : reports_(reports) {}

  const Rules& rules() const { return rules_; }
  void rulesIs(Rules rules);  // counts for changes from now on
  using Log = std::function<void(const std::string& line)>;
  void logIs(Log log) { log_ = std::move(log); }  // told of each change; empty: of none
  // Called after each thousand changes or so, between two of them; what it throws goes through.
  void progressIs(std::function<void()> progress) { progress_ = std::move(progress); }

  const ProgrammedTable* table(const std::string& name) const;  // null when not there
  const std::map<std::string, std::unique_ptr<ProgrammedTable>>& tables() const { return tables_; }
  uint64_t tablesVersion() const { return tablesVersion_; }  // moves as tables come and go
  uint64_t changes(Outcome outcome) const { return changes_[static_cast<size_t>(outcome)]; }
  uint64_t snapshotCount() const { return snapshots_; }  // whole ones
  uint64_t sweptRows() const { return sweptRows_; }      // held, but in a snapshot no more

  // The changes of counted rows' totals, to be published: a row starts with what its counter
  // columns say, keeps counting while its entry handle stays, and goes with its count.
  FlowBook& flows() { return flows_; }
  bool anyCounted() const;  // whether a table's rows are
  void doRepublishFlows();  // puts the counts of all rows into flows()

  void tableAdded(const Lattice::FollowedTable& table) override;
  void tableRemoved(const Lattice::FollowedTable& table) override;
  void snapshotBegin() override;
  void snapshotEnd() override;
  void rowChanged(const Lattice::RowChange& change) override;

 private:
  struct Verdict {
    Outcome outcome = Outcome::unchanged;
    uint16_t errorCode = 0;
    std::string message;
  };
  // A new row of a snapshot for which there is no room before the rows that are gone have left.
  struct Deferred {
    std::string table;
    std::string key;
    std::string value;
    uint64_t entryHandle;
    uint64_t sequence;
  };

  ProgrammedTable& tableOf(const Lattice::FollowedTable& followed);
  Verdict deleted(ProgrammedTable& table, std::string_view key);
  Verdict written(ProgrammedTable& table, const Lattice::RowChange& change);
  using Counter = std::optional<Lattice::CounterColumns>;
  void doCount(const ProgrammedTable& table, const StoredRow& row, uint64_t entryHandle,
               const Counter& former);
  void doForgetFlow(const ProgrammedTable& table, const StoredRow& row);
  void doForgetFlows(const ProgrammedTable& table);
  void doSweep(ProgrammedTable& table);
  bool maybeDefer(const ProgrammedTable& table, const Lattice::RowChange& change);
  bool maybeFail(const ProgrammedTable& table, std::string_view key, Verdict& verdict);
  void doProgram(ProgrammedTable& table, const Lattice::RowChange& change);
  void doCopyRules(ProgrammedTable& table) const;
  static std::string logLine(const ProgrammedTable& table, const Lattice::RowChange& change,
                             const Verdict& verdict);

  ReportQueue& reports_;
  FlowBook flows_;
  Rules rules_;
  Log log_;
  std::function<void()> progress_;
  unsigned sinceProgress_ = 0;                                      // changes
  std::map<std::string, std::unique_ptr<ProgrammedTable>> tables_;  // by name
  std::unordered_map<const Lattice::FollowedTable*, ProgrammedTable*> followed_;
  uint64_t tablesVersion_ = 1;
  uint32_t snapshotNumber_ = 0;  // of the newest one begun; rows keep the last that showed them
  bool inSnapshot_ = false;
  std::vector<Deferred> deferred_;
  uint64_t writes_ = 0;  // that needed programming, for "each n-th fails"
  std::array<uint64_t, outcomeCount> changes_{};
  uint64_t snapshots_ = 0;
  uint64_t sweptRows_ = 0;
};

}  // namespace Forwarder
