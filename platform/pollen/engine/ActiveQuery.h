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

// A checked query.
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
// on, changesAre() before each commit keeps the output up to date.
// Threads: call with the activity lock held. Errors: both throw QueryError, after which only
// clear() makes sense, and Brine::StoreError. Lifetime: owns inputs and output.
class ActiveQuery {
 public:
  // The inputs are the tables in QueryMethod::read.
  ActiveQuery(const QuerySpec& spec, std::vector<std::unique_ptr<InputTable>> inputs,
              std::unique_ptr<OutputTable> output);

  OutputTable& output() { return *output_; }
  bool built() const { return phase_ == Phase::built; }
  bool reads(const std::string& table) const;
  bool anyChange();

  // Brings the output nearer to the result over the committed rows, by a step of about `rows` rows
  // where the query is incremental. Takes changes into account that are committed meanwhile.
  void build(size_t rows);
  // To be called in CommitObserver::onBeforeCommit().
  void changesAre();
  void clear();  // removes all rows of the output
  void finishCommit();
  // Undoes this commit. A query that was being built, or was cleared, starts over. Returns whether
  // rows of that work were lost.
  bool rollBack();

  uint64_t evaluations() const { return evaluations_; }
  uint64_t microseconds() const { return microseconds_; }  // of all of them

 private:
  enum class Phase { begin, loading, reading, removing, built };
  class Measured;
  bool incremental() const { return method_ != QueryMethod::Kind::complete; }
  SqlStatement prepare(std::optional<size_t> driver);
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
  bool startedInCommit_ = false;  // was built further, or cleared
  std::vector<size_t> indexedInCommit_;
  uint64_t evaluations_ = 0;
  uint64_t microseconds_ = 0;
};

}  // namespace Pollen
