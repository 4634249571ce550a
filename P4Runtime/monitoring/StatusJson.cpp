#include "P4Runtime/monitoring/StatusJson.h"

#include <algorithm>
#include <chrono>

#include "P4Runtime/monitoring/CodeNames.h"
#include "P4Runtime/monitoring/Controllers.h"
#include "PI/frontends/proto/write_statistics.h"
#include "platform/orrery/AttributeJson.h"
#include "platform/vela/Json.h"

namespace P4Runtime {
namespace {

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
  addControllers(status.get());
  addPorts(status.get(), agent);
  addWrites(status.get());
  return Vela::jsonLine(*status);
}

}  // namespace P4Runtime
