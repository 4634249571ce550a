#include "P4Runtime/monitoring/StatusJson.h"

#include <algorithm>
#include <cctype>
#include <chrono>

#include "P4Runtime/monitoring/CodeNames.h"
#include "PI/frontends/proto/write_statistics.h"
#include "platform/orrery/AttributeJson.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/Json.h"

namespace P4Runtime {
namespace {

constexpr size_t mostRows = 100;         // in an answer
constexpr size_t mostLookedAt = 200000;  // for an answer
constexpr size_t lookedAtInATurn = 2000;

void addEntity(cJSON* to, const char* name, const Observed& agent, const char* path) {
  const auto entity = agent.stateDatabase.entity(path);
  if (!entity) return;
  cJSON* attributes = cJSON_AddObjectToObject(to, name);
  for (const auto* attribute : entity->attributes()) {
    cJSON_AddItemToObject(attributes, attribute->name(), Orrery::valueJson(*attribute).release());
  }
}

void addTables(cJSON* to, const Observed& agent) {
  cJSON* tables = Vela::addArray(to, "tables");
  for (const TableFill& use : tableFills(*agent.tableInfo)) {
    cJSON* table = Vela::addObjectTo(tables);
    Vela::addString(table, "name", use.name);
    Vela::addNumber(table, "entries", static_cast<double>(use.entries));
    Vela::addNumber(table, "size", static_cast<double>(use.size));
  }
}

void addForwardingAgents(cJSON* to, const Observed& agent) {
  cJSON* agents = Vela::addArray(to, "forwardingAgents");
  const uint64_t newest = agent.store.committedSequence();
  for (const Lattice::SubscriberInfo& one : agent.tables.subscribers()) {
    cJSON* shown = Vela::addObjectTo(agents);
    Vela::addString(shown, "name", one.name);
    Vela::addNumber(shown, "pid", static_cast<double>(one.pid));
    Vela::addNumber(shown, "behind", static_cast<double>(newest - std::min(newest, one.sequence)));
    Vela::addNumber(shown, "reports", static_cast<double>(one.reports));
  }
}

void addPorts(cJSON* to, const Observed& agent) {
  cJSON* ports = Vela::addArray(to, "ports");
  if (!agent.portMapping) return;
  for (const auto& [port, intf] : agent.portMapping->intfOfPortCollection().values()) {
    cJSON* shown = Vela::addObjectTo(ports);
    Vela::addNumber(shown, "port", port);
    Vela::addString(shown, "interface", intf);
  }
}

void addWrites(cJSON* to) {
  using pi::fe::proto::DurationHistogram;
  const auto& statistics = pi::fe::proto::writeStatistics();
  cJSON* updates = cJSON_AddObjectToObject(to, "updates");
  for (size_t code = 0; code < statistics.updates.size(); ++code) {
    const auto count = static_cast<double>(statistics.updates[code].load());
    if (count != 0) Vela::addNumber(updates, statusCodeNames[code], count);
  }
  cJSON* ends = Vela::addArray(to, "stageEnds");  // nanoseconds
  for (const uint64_t end : DurationHistogram::kEnds) {
    cJSON_AddItemToArray(ends, cJSON_CreateNumber(static_cast<double>(end)));
  }
  cJSON* stages = cJSON_AddObjectToObject(to, "stages");  // counts, one a bucket
  for (size_t i = 0; i < statistics.stages.size(); ++i) {
    cJSON* counts = Vela::addArray(stages, writeStageNames[i]);
    for (const uint64_t count : statistics.stages[i].totals().counts) {
      cJSON_AddItemToArray(counts, cJSON_CreateNumber(static_cast<double>(count)));
    }
  }
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& byte : result)
    byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
  return result;
}

std::string lineOf(const std::vector<Lattice::ColumnText>& columns) {
  std::string line;
  for (const Lattice::ColumnText& column : columns) {
    line += (line.empty() ? "" : " ") + column.name + "=" + column.text;
  }
  return line;
}

// Looks through a table for rows that have a text.
class RowSearch {
 public:
  RowSearch(const Observed& agent, std::string_view table, std::string_view wanted)
      : agent_(agent), table_(table), wanted_(lower(wanted)), answer_(cJSON_CreateObject()) {}

  std::string run() {
    while (!isThrough_ && found_ < mostRows && looked_ < mostLookedAt) {
      const Vela::ActivityLock lock;  // others get it between two turns
      runTurn();
    }
    return Vela::jsonLine(*answer_);
  }

 private:
  void runTurn() {
    const auto& tables = agent_.tableInfo->latticeTableInterfaceCollection().values();
    const auto known = std::ranges::find_if(tables, [&](const auto& one) {
      return one.second->ready() && one.second->tableName() == table_;
    });
    isThrough_ = true;
    if (known == tables.end()) return;
    const auto type = agent_.tableInfo->typeOfTable(table_);
    if (!type) return;
    if (rows_ == nullptr) rows_ = Vela::addArray(answer_.get(), "rows");
    const size_t end = looked_ + lookedAtInATurn;
    known->second->forEachCommitted(
        [&](const Lattice::StoredRow& row) {
          look(*type, row);
          isThrough_ = looked_ < end && found_ < mostRows;
          return isThrough_;
        },
        &position_);
    cJSON_DeleteItemFromObject(answer_.get(), "looked");
    Vela::addNumber(answer_.get(), "looked", static_cast<double>(looked_));
  }

  void look(const Lattice::TableType& type, const Lattice::StoredRow& row) try {
    ++looked_;
    const std::string key = lineOf(Lattice::keyTexts(type, row.key));
    const std::string value = lineOf(Lattice::valueTexts(type, row.value));
    if (!wanted_.empty() && lower(key + " " + value).find(wanted_) == std::string::npos) return;
    ++found_;
    cJSON* shown = Vela::addObjectTo(rows_);
    Vela::addString(shown, "key", key);
    Vela::addString(shown, "value", value);
  } catch (const Lattice::TypeError&) {  // of another pipeline, which has just come
  }

  const Observed& agent_;
  const std::string table_;
  const std::string wanted_;
  const Vela::Json answer_;
  cJSON* rows_ = nullptr;
  Brine::Store::Position position_;
  bool isThrough_ = false;
  size_t looked_ = 0;
  size_t found_ = 0;
};

}  // namespace

std::string statusJson(const Observed& agent) {
  const Vela::Json status(cJSON_CreateObject());
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  Vela::addNumber(status.get(), "seconds", std::chrono::duration<double>(now).count());
  addEntity(status.get(), "agent", agent, agentStatusPath);
  addEntity(status.get(), "system", agent, systemStatusPath);
  addEntity(status.get(), "packets", agent, packetStatusPath);
  addEntity(status.get(), "failures", agent, failuresPath);
  addTables(status.get(), agent);
  addForwardingAgents(status.get(), agent);
  addPorts(status.get(), agent);
  addWrites(status.get());
  return Vela::jsonLine(*status);
}

std::string rowsJson(const Observed& agent, std::string_view table, std::string_view wanted) {
  return RowSearch(agent, table, wanted).run();
}

}  // namespace P4Runtime
