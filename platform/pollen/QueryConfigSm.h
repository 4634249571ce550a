// Follows the query configurations: checks each query against its tables, has the active ones
// evaluated, and publishes how it goes.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "platform/lattice/Database.h"
#include "platform/pollen/engine/QueryEngine.h"
#include "platform/pollen/entities/QueryConfig.h"
#include "platform/pollen/entities/QueryStatus.h"
#include "platform/vela/ReactorLoop.h"

namespace Pollen {

// The access of queries to tables. Called on the reactor with the activity lock held.
struct QueryTables {
  // The type of a table that a query reads; null when there is no such table (yet). Outputs of
  // other queries need not be known here.
  std::function<std::shared_ptr<const Lattice::TableType>(const std::string& tableName)> typeOf;
  // Makes the output table of a query, with the rows of before if there are any. Throws
  // std::exception with the reason.
  std::function<Vela::Ptr<Lattice::ArTableInterface>(const std::string& path,
                                                     const std::string& typeName)>
      outputTableIs;
  Lattice::Database* database = nullptr;  // outlives the queries
};

// Queries are checked on a later turn of the reactor than the one that changed them, with all their
// changes of that turn; one that is not active any more stops at once. A query that reads the
// output of another waits until that is active. Call with the activity lock held; the loop must
// outlive this.
class QueryConfigSm final : public Vela::RefCounted {
 public:
  QueryConfigSm(Vela::ReactorLoop& loop, Vela::Ptr<QueryConfigDir> configs,
                Vela::Ptr<QueryStatusDir> statuses, QueryTables tables);
  ~QueryConfigSm() override;

  // Brings rows, evaluations and troubles of the statuses up to date.
  void publishStatuses();
  std::string statusText() const;  // of all queries, one after the other
  QueryEngine& engine() { return engine_; }

 private:
  struct Watched {
    Vela::Ptr<QueryConfig> config;
    Vela::Observation change;
  };
  void handleQueryConfig(const std::string& path);
  void handleActive(const std::string& path);
  void handleProgress(const std::string& path);
  void maybeScheduleCheck(const std::string& path);
  void scheduleReaders(const std::string& path);
  void doCheck(const std::string& path);
  void doPublish(const QueryConfig& config);
  Vela::Outcome check(const QueryConfig& config, QuerySpec* spec) const;
  Vela::Outcome checkInputsActive(const QueryConfig& config, bool* failed) const;
  Vela::Outcome checkNoCycle(const std::string& path) const;
  Vela::Outcome start(QuerySpec spec, const std::string& outputType);
  void publishNumbers(QueryStatus& status);

  Vela::ReactorLoop& loop_;
  Vela::Ptr<QueryConfigDir> configs_;
  Vela::Ptr<QueryStatusDir> statuses_;
  QueryTables tables_;
  QueryEngine engine_;
  std::map<std::string, Watched> watched_;
  std::set<std::string> scheduled_;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  Vela::Observation configsChange_;
  Vela::Observation activeChange_;
};

}  // namespace Pollen
