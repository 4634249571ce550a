// A query that is being evaluated.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/pollen/engine/OutputTable.h"
#include "platform/pollen/engine/QueryDatabase.h"
#include "platform/pollen/sql/QueryCheck.h"

namespace Pollen {

// What a query says, checked.
struct QuerySpec {
  std::string path;  // of the output table
  CheckedQuery checked;
  std::map<std::string, std::string> inputTables;  // name in the query -> table
  std::map<std::string, std::string> parameters;   // name without ':' -> value
  bool oneShot = false;
  QueryMethod method;
};

// A parameter's value: an INTEGER when it reads as one of 64 bits with a sign, decimal or 0x...; a
// BLOB when it is x'...' of hexadecimal digits; else a TEXT.
void bindParameters(sqlite3_stmt* statement, const std::map<std::string, std::string>& parameters);

// First build() is called again and again, on turns of the reactor outside any batch; from then
// on, changesAre() before each commit keeps the output equal to what the query means. Both throw
// QueryError, after which only clear() makes sense, and what the store throws. Call with the
// activity lock held.
class ActiveQuery {
 public:
  // The inputs are the ones that count (QueryMethod::read).
  ActiveQuery(const QuerySpec& spec, std::vector<std::unique_ptr<InputTable>> inputs,
              std::unique_ptr<OutputTable> output);

  OutputTable& output() { return *output_; }
  bool built() const { return phase_ == Phase::built; }
  bool reads(const std::string& table) const;
  bool anyChange();

  // Brings the output nearer to what the committed rows give, by a step of some so many rows where
  // the query is incremental. Changes that are committed meanwhile are taken into account.
  void build(size_t rows);
  // To be called in CommitObserver::beforeCommit().
  void changesAre();
  void clear();  // removes all rows of the output
  void committed();
  // One that was being built, or was cleared, begins anew. Whether rows of that were lost.
  bool discarded();

  uint64_t evaluations() const { return evaluations_; }
  uint64_t microseconds() const { return microseconds_; }  // of all of them

 private:
  enum class Phase { begin, loading, reading, removing, built };
  class Measured;
  bool incremental() const { return method_ != QueryMethod::Kind::complete; }
  SqlStatement prepared(std::optional<size_t> driver);
  void doBegin();
  void doStep(size_t rows);
  void readSome(size_t rows);
  void evaluateAll();
  void evaluateChanges();
  void run(sqlite3_stmt* statement, InputTable* driver);
  void runOver(size_t input, std::span<const SignedRow> rows);

  const QueryMethod::Kind method_;
  const std::string text_;
  const std::map<std::string, std::string> parameters_;
  QueryDatabase database_;
  std::unique_ptr<OutputTable> output_;
  std::vector<SqlStatement> statements_;  // one an input, or one for all
  Phase phase_ = Phase::begin;
  std::vector<size_t> order_;     // of reading the inputs, the largest last
  size_t reading_ = 0;            // in order_
  bool startedInCommit_ = false;  // began or went on building, or was cleared
  std::vector<size_t> indexedInCommit_;
  uint64_t evaluations_ = 0;
  uint64_t microseconds_ = 0;
};

}  // namespace Pollen
