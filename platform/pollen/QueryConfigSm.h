// Follows the query configurations: checks each query against its tables and publishes how it went.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "platform/lattice/TableType.h"
#include "platform/pollen/QueryConfig.h"
#include "platform/pollen/QueryStatus.h"
#include "platform/vela/ReactorLoop.h"

namespace Pollen {

// What the queries need of the tables. Called on the reactor with the activity lock held.
struct QueryTables {
  // The type of a table that a query reads; null when there is no such table (yet).
  std::function<std::shared_ptr<const Lattice::TableType>(const std::string& tableName)> typeOf;
  // Makes the output table of a query, empty. Throws std::exception with the reason.
  std::function<void(const std::string& path, const std::string& typeName)> outputTableIs;
};

// Queries are checked on a later turn of the reactor than the one that changed them, with all their
// changes of that turn. The output table of an active query is made and stays empty: its rows are
// not computed yet, which is traced. Call with the activity lock held; the loop must outlive this.
class QueryConfigSm final : public Vela::RefCounted {
 public:
  QueryConfigSm(Vela::ReactorLoop& loop, Vela::Ptr<QueryConfigDir> configs,
                Vela::Ptr<QueryStatusDir> statuses, QueryTables tables);

 private:
  struct Watched {
    Vela::Ptr<QueryConfig> config;
    Vela::Observation change;
  };
  void handleQueryConfig(const std::string& path);
  void handleActive(const std::string& path) { maybeScheduleCheck(path); }
  void maybeScheduleCheck(const std::string& path);
  void doCheck(const std::string& path);
  void doPublish(const QueryConfig& config);

  Vela::ReactorLoop& loop_;
  Vela::Ptr<QueryConfigDir> configs_;
  Vela::Ptr<QueryStatusDir> statuses_;
  QueryTables tables_;
  std::map<std::string, Watched> watched_;
  std::set<std::string> scheduled_;
  Vela::Observation configsChange_;
  Vela::Observation activeChange_;
};

}  // namespace Pollen
