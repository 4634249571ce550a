#include "P4Runtime/table/restore/StandingTables.h"

#include <algorithm>

namespace P4Runtime {

StandingTables::Definition StandingTables::definition(
    const ResourceId& rid, const Lattice::ArTableInterface& interface) const {
  Definition definition;
  definition.rows = interface.number();
  definition.key = tableInfo_.fieldBitwidths(rid);
  for (const uint32_t id : tableInfo_.actionIdColForTable(rid).actionId()) {
    definition.actions.emplace(id, tableInfo_.fieldBitwidths({actionResource, id}));
  }
  definition.needsPriority = tableInfo_.priorityNeeded(rid);
  definition.unprogrammable = tableInfo_.unprogrammable(rid);
  return definition;
}

// A table with its former number has its former rows, and a type that takes them.
bool StandingTables::holds(const Definition& now, const Definition& then) {
  return now.rows == then.rows && now.key == then.key && now.needsPriority == then.needsPriority &&
         now.unprogrammable == then.unprogrammable &&
         std::ranges::all_of(then.actions, [&](const auto& action) {
           const auto found = now.actions.find(action.first);
           return found != now.actions.end() && found->second == action.second;
         });
}

// Entries that come with the pipeline may change with it.
bool StandingTables::canStand(const ResourceId& rid) const {
  return rid.type == tableResource && tableInfo_.rowConstructor(rid) &&
         tableInfo_.constEntries(rid).entry().empty();
}

void StandingTables::remember() {
  tables_.clear();
  for (const auto& [rid, interface] : tableInfo_.latticeTableInterfaceCollection().values()) {
    if (canStand(rid) && interface->ready()) tables_.emplace(rid.id, definition(rid, *interface));
  }
}

std::vector<uint32_t> StandingTables::ids() const {
  std::vector<uint32_t> ids;
  for (const auto& [id, former] : tables_) {
    const ResourceId rid{tableResource, id};
    const auto& interface = tableInfo_.latticeTableInterface(rid);
    const bool isReady = interface && interface->ready();
    if (isReady && canStand(rid) && holds(definition(rid, *interface), former)) ids.push_back(id);
  }
  return ids;
}

}  // namespace P4Runtime
