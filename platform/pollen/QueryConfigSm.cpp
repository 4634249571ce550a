#include "platform/pollen/QueryConfigSm.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "platform/pollen/sql/QueryCheck.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("QueryConfigSm");

namespace Pollen {

using Vela::Outcome;
using Vela::Ptr;
using State = QueryProgress::State;

QueryConfigSm::QueryConfigSm(Vela::ReactorLoop& loop, Ptr<QueryConfigDir> configs,
                             Ptr<QueryStatusDir> statuses, QueryTables tables)
    : loop_(loop),
      configs_(std::move(configs)),
      statuses_(std::move(statuses)),
      tables_(std::move(tables)),
      engine_(loop, *tables_.database) {
  engine_.progressHandlerIs([this](const std::string& path) { handleProgress(path); });
  configsChange_ = configs_->entityCollection().observeKeys(
      [this](const std::string& path) { handleQueryConfig(path); });
  activeChange_ = configs_->activeCollection().observeKeys(
      [this](const std::string& path) { handleActive(path); });
  for (const std::string& path : configs_->entityNames()) handleQueryConfig(path);
}

QueryConfigSm::~QueryConfigSm() { *alive_ = false; }

void QueryConfigSm::handleQueryConfig(const std::string& path) {
  const Ptr<QueryConfig> config = configs_->queryConfig(path);
  SCRIVEL_TRACE(1, "handleQueryConfig", " path: ", path, config ? " present" : " gone");
  watched_.erase(path);
  engine_.queryDel(path);
  scheduleReaders(path);
  if (!config) return statuses_->queryStatusDel(path);
  watched_[path] = {
      config, config->observeAll([this, path](const std::string&) { maybeScheduleCheck(path); })};
  maybeScheduleCheck(path);
}

// Its tables may go next.
void QueryConfigSm::handleActive(const std::string& path) {
  SCRIVEL_TRACE(5, "handleActive", " ", path);
  if (!configs_->activeQueryConfigHas(path)) {
    engine_.queryDel(path);
    scheduleReaders(path);
  }
  maybeScheduleCheck(path);
}

void QueryConfigSm::maybeScheduleCheck(const std::string& path) {
  if (!watched_.count(path)) return;            // handleQueryConfig() asks again
  if (!scheduled_.insert(path).second) return;  // the turn to come sees this change, too
  loop_.post([this, alive = alive_, path] {
    if (*alive) doCheck(path);
  });
}

void QueryConfigSm::scheduleReaders(const std::string& path) {
  for (const auto& [reader, watched] : watched_) {
    const auto& inputs = watched.config->inputTableCollection().values();
    const bool reads = std::any_of(inputs.begin(), inputs.end(),
                                   [&](const auto& input) { return input.second == path; });
    if (reads && reader != path) maybeScheduleCheck(reader);
  }
}

void QueryConfigSm::handleProgress(const std::string& path) {
  SCRIVEL_TRACE(5, "handleProgress", " ", path);
  const auto found = watched_.find(path);
  if (found == watched_.end()) return;  // deleted meanwhile
  doPublish(*Ptr<QueryConfig>(found->second.config));
  scheduleReaders(path);
}

void QueryConfigSm::doCheck(const std::string& path) {
  scheduled_.erase(path);
  const auto found = watched_.find(path);
  if (found == watched_.end()) return;  // deleted meanwhile
  const Ptr<QueryConfig> config = found->second.config;
  const Ptr<QueryStatus> status = statuses_->queryStatusIs(path);
  engine_.queryDel(path);
  QuerySpec spec;
  Outcome valid = config->queryText().empty() ? Outcome() : check(*config, &spec);
  const bool defined = !config->queryText().empty() && valid.ok();
  bool inputFailed = false;
  if (defined && configs_->activeQueryConfigHas(path)) {
    const Outcome inputsActive = checkInputsActive(*config, &inputFailed);
    if (inputsActive.ok()) valid = start(std::move(spec), config->outputType());
    if (inputFailed) valid = inputsActive;
  }
  const std::string& reason = valid.reason();
  if (!reason.empty()) SCRIVEL_TRACE(0, "query is not valid: ", path, " ", reason);
  // First: observers of the reason ask whether the query is valid all the same.
  status->definedIs(defined && (reason.empty() || inputFailed));
  status->reasonIs(reason);
  doPublish(*config);
}

Outcome QueryConfigSm::check(const QueryConfig& config, QuerySpec* spec) const {
  spec->path = config.name();
  spec->oneShot = config.oneShot();
  CheckedQuery& query = spec->checked;
  query.text = config.queryText();
  query.output = Lattice::TheTypeRegistry().type(config.outputType());
  if (!query.output) {
    return Outcome::failure("output type " + config.outputType() + " is not known");
  }
  if (tables_.typeOf(spec->path)) {
    return Outcome::failure("output table " + spec->path +
                            " is a table of the pipeline; choose another path");
  }
  for (const auto& [name, tableName] : config.inputTableCollection().values()) {
    const Ptr<QueryConfig> source = configs_->queryConfig(tableName);
    auto type =
        source ? Lattice::TheTypeRegistry().type(source->outputType()) : tables_.typeOf(tableName);
    if (!type) return Outcome::failure("input table " + tableName + " does not exist");
    query.inputs.emplace_back(name, std::move(type));
    spec->inputTables[name] = tableName;
  }
  std::sort(query.inputs.begin(), query.inputs.end());
  for (const auto& [name, value] : config.parameterCollection().values()) {
    query.parameters.push_back(name);
    spec->parameters[name] = value;
  }
  if (Outcome noCycle = checkNoCycle(spec->path); !noCycle.ok()) return noCycle;
  if (Outcome sound = checkQuery(query); !sound.ok()) return sound;
  spec->method = queryMethod(query);
  return {};
}

// Walks from the query's inputs to their queries' inputs, and so on.
Outcome QueryConfigSm::checkNoCycle(const std::string& path) const {
  std::map<std::string, std::string> readBy;  // a reader of each table
  std::vector<std::string> open{path};
  while (!open.empty()) {
    const std::string reader = open.back();
    open.pop_back();
    const Ptr<QueryConfig> config = configs_->queryConfig(reader);
    if (!config) continue;
    for (const auto& [name, table] : config->inputTableCollection().values()) {
      if (table == path) {
        std::string way;
        for (std::string at = reader; at != path; at = readBy[at]) way = " by way of " + at + way;
        return Outcome::failure("the query reads its own output" + way);
      }
      if (readBy.try_emplace(table, reader).second) open.push_back(table);
    }
  }
  return {};
}

// Fails while an input is the output of a query that is not active; `failed`: and will not become
// active by itself.
Outcome QueryConfigSm::checkInputsActive(const QueryConfig& config, bool* failed) const {
  for (const auto& [name, table] : config.inputTableCollection().values()) {
    if (!configs_->queryConfig(table)) continue;
    const Ptr<QueryStatus> status = statuses_->queryStatus(table);
    if (engine_.progress(table).state == State::active) continue;
    *failed = !configs_->activeQueryConfigHas(table) || (status && !status->reason().empty());
    return Outcome::failure("input table " + table +
                            " is the output of a query that is not active");
  }
  return {};
}

Outcome QueryConfigSm::start(QuerySpec spec, const std::string& outputType) try {
  const std::string path = spec.path;
  const auto output = tables_.outputTableIs(path, outputType);
  if (!output || !output->ready()) return Outcome::failure("output table: it is not ready");
  engine_.queryIs(std::move(spec), output);
  scheduleReaders(path);  // they come after it
  return {};
} catch (const std::exception& e) {
  return Outcome::failure(std::string("output table: ") + e.what());
}

void QueryConfigSm::doPublish(const QueryConfig& config) {
  const Ptr<QueryStatus> status = statuses_->queryStatusIs(config.name());
  const QueryProgress progress = engine_.progress(config.name());
  if (progress.state == State::failed) {
    status->reasonIs(progress.reason);
    status->definedIs(progress.atEvaluation);
  } else if (progress.state != State::none) {
    status->reasonIs("");
    status->definedIs(true);
  }
  publishNumbers(*status);
  status->activeIs(progress.state == State::active);
}

void QueryConfigSm::publishNumbers(QueryStatus& status) {
  const QueryProgress progress = engine_.progress(status.name());
  status.methodIs(progress.method);
  status.troubleIs(progress.trouble);
  status.rowsIs(progress.rows);
  status.evaluationsIs(progress.evaluations);
  status.evaluationMicrosecondsIs(progress.microseconds);
  std::string text = status.name() + ": ";
  if (!status.reason().empty()) {
    text += "failed: " + status.reason();
  } else if (progress.state == State::none) {
    text += status.defined() ? "not active" : "not defined";
  } else {
    char took[32];
    std::snprintf(took, sizeof took, "%.1f ms", static_cast<double>(progress.microseconds) / 1000);
    text += (progress.state == State::active ? "active, " : "being built, ") + progress.method +
            ", " + std::to_string(progress.rows) + " rows, " +
            std::to_string(progress.evaluations) + " evaluations in " + took;
  }
  if (!progress.trouble.empty()) text += "; " + progress.trouble;
  status.textIs(text);
}

void QueryConfigSm::publishStatuses() {
  for (const std::string& path : statuses_->entityNames()) {
    if (const auto status = statuses_->queryStatus(path)) publishNumbers(*status);
  }
}

std::string QueryConfigSm::statusText() const {
  std::set<std::string> lines;
  for (const std::string& path : statuses_->entityNames()) {
    if (const auto status = statuses_->queryStatus(path)) lines.insert(status->text());
  }
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace Pollen
