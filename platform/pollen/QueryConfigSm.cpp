#include "platform/pollen/QueryConfigSm.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/pollen/QueryCheck.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("QueryConfigSm");

namespace Pollen {
namespace {

using Vela::Ptr;

// Empty when the query is valid, else why not.
std::string checkedTrouble(const QueryConfig& config, const QueryTables& tables) {
  CheckedQuery query;
  query.text = config.queryText();
  query.output = Lattice::TheTypeRegistry().type(config.outputType());
  if (!query.output) return "output type " + config.outputType() + " is not known";
  for (const auto& [name, tableName] : config.inputTableCollection().values()) {
    auto type = tables.typeOf(tableName);
    if (!type) return "input table " + tableName + " does not exist";
    query.inputs.emplace_back(name, std::move(type));
  }
  std::sort(query.inputs.begin(), query.inputs.end());
  for (const auto& [name, value] : config.parameterCollection().values()) {
    query.parameters.push_back(name);
  }
  return queryTrouble(query);
}

}  // namespace

QueryConfigSm::QueryConfigSm(Vela::ReactorLoop& loop, Ptr<QueryConfigDir> configs,
                             Ptr<QueryStatusDir> statuses, QueryTables tables)
    : loop_(loop),
      configs_(std::move(configs)),
      statuses_(std::move(statuses)),
      tables_(std::move(tables)) {
  configsChange_ = configs_->entityCollection().observeKeys(
      [this](const std::string& path) { handleQueryConfig(path); });
  activeChange_ = configs_->activeCollection().observeKeys(
      [this](const std::string& path) { handleActive(path); });
  for (const std::string& path : configs_->entityNames()) handleQueryConfig(path);
}

void QueryConfigSm::handleQueryConfig(const std::string& path) {
  const Ptr<QueryConfig> config = configs_->queryConfig(path);
  SCRIVEL_TRACE(1, "handleQueryConfig", " path: ", path, config ? " present" : " gone");
  watched_.erase(path);
  if (!config) return statuses_->queryStatusDel(path);
  watched_[path] = {
      config, config->observeAll([this, path](const std::string&) { maybeScheduleCheck(path); })};
  maybeScheduleCheck(path);
}

void QueryConfigSm::maybeScheduleCheck(const std::string& path) {
  if (!watched_.count(path)) return;            // handleQueryConfig() asks again
  if (!scheduled_.insert(path).second) return;  // the turn to come sees this change, too
  loop_.post([self = Ptr<QueryConfigSm>(this), path] { self->doCheck(path); });
}

void QueryConfigSm::doCheck(const std::string& path) {
  scheduled_.erase(path);
  const auto found = watched_.find(path);
  if (found == watched_.end()) return;  // deleted meanwhile
  doPublish(*Ptr<QueryConfig>(found->second.config));
}

void QueryConfigSm::doPublish(const QueryConfig& config) {
  const std::string& path = config.name();
  const Ptr<QueryStatus> status = statuses_->queryStatusIs(path);
  std::string reason = config.queryText().empty() ? "" : checkedTrouble(config, tables_);
  const bool defined = !config.queryText().empty() && reason.empty();
  bool active = false;
  if (defined && configs_->activeQueryConfigHas(path)) {
    try {
      if (!status->active()) tables_.outputTableIs(path, config.outputType());
      active = true;
      SCRIVEL_TRACE(0, "query is active: ", path,
                    "; its table stays empty: keeping it up to date is not there yet");
    } catch (const std::exception& e) {
      reason = std::string("output table: ") + e.what();
    }
  }
  if (!reason.empty()) SCRIVEL_TRACE(0, "query is not valid: ", path, " ", reason);
  status->reasonIs(reason);
  status->definedIs(defined && reason.empty());
  status->activeIs(active);
}

}  // namespace Pollen
