// Keeps the output tables of all active queries up to date, commit by commit.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/lattice/Database.h"
#include "platform/lattice/TableWatch.h"
#include "platform/pollen/engine/ActiveQuery.h"
#include "platform/vela/ReactorLoop.h"

namespace Pollen {

// How far a query has come.
struct QueryProgress {
  enum class State {
    none,      // not known
    building,  // its output is not complete yet
    active,
    failed,  // its output is empty, or not ours any more; `reason` says why
  };
  State state = State::none;
  std::string reason;
  std::string method;   // "incremental: join"
  std::string trouble;  // results that are no rows, and conflicts; empty: none
  uint64_t rows = 0;
  uint64_t evaluations = 0;
  uint64_t microseconds = 0;  // of all evaluations
  bool atEvaluation = false;  // failed when it was evaluated: its text is valid
};

// Threads: call with the activity lock held; handlers run with it held.
// Errors: a failed query has a state and a reason, and concerns no other; onBeforeCommit() throws
// Brine::StoreError, which fails the commit.
// Lifetime: loop, database and the objects that handlers use outlive it.
// Rows of inputs and outputs are in the same commits. Queries are brought up to date in the order
// of their queryIs(), so that a query comes after the queries whose output it reads. Building a
// query takes turns of the reactor, with commits between them. A query that failed at some rows is
// tried again when its inputs change.
class QueryEngine final : public Lattice::CommitObserver {
 public:
  QueryEngine(Vela::ReactorLoop& loop, Lattice::Database& database);
  ~QueryEngine() override;

  // Told, on a later turn of the reactor, when the state of a query has changed.
  void progressHandlerIs(std::function<void(const std::string& path)> handler) {
    progressHandler_ = std::move(handler);
  }
  // Told of every derived row that is written.
  void derivedRowHandlerIs(DerivedRowHandler handler) { derivedRowHandler_ = std::move(handler); }

  // Starts a query; small tables are done when it returns. Replaces a former query with that path,
  // and takes over the rows of the output table that the new query gives, too.
  void queryIs(QuerySpec spec, Vela::Ptr<Lattice::ArTableInterface> output);
  void queryDel(const std::string& path);  // the rows stay
  QueryProgress progress(const std::string& path) const;

  // "table resolved_route, vrf=1, dst=10.0.0.0/8" for each handle of a derived row; empty where
  // there is no such row. Walks all outputs.
  std::vector<std::string> rowTexts(std::span<const uint64_t> handles);

  void onBeforeCommit() override;
  void onCommitted() override;
  void onDiscarded() override;
  void onBatchEnded() override;
  void onWatchedTableGone(const std::string& name) override;

 private:
  struct Query {
    QuerySpec spec;
    Vela::Ptr<Lattice::ArTableInterface> output;
    std::unique_ptr<ActiveQuery> active;  // null: not begun, or failed for good
    QueryProgress::State state = QueryProgress::State::building;
    std::string reason;
    bool finished = false;  // a one-shot that is done: `active` goes with the commit
    QueryProgress last;     // of a finished one
    bool hopeless = false;  // failed, and would with any rows
  };
  Query* find(const std::string& path);
  void doBegin(Query& query);
  void doStep(Query& query);
  void stepGuarded(Query& query);
  void doFail(Query& query, const std::string& reason, bool hopeless);
  void update(Query& query);
  void stateIs(Query& query, QueryProgress::State state, std::string reason = {});
  void schedule();
  void handleTurn();
  void post(std::function<void()> work);

  Vela::ReactorLoop& loop_;
  Lattice::Database& database_;
  std::function<void(const std::string&)> progressHandler_;
  DerivedRowHandler derivedRowHandler_;
  std::vector<std::unique_ptr<Query>> queries_;  // one after those whose output it reads
  bool scheduled_ = false;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Pollen
