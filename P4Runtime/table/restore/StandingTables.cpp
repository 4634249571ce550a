#include "P4Runtime/table/restore/StandingTables.h"

namespace P4Runtime {

StandingTables::Definition StandingTables::definition(
    const ResourceId& rid, const Lattice::ArTableInterface& interface) const {
  const Lattice::TableType& type = tableInfo_.rowConstructor(rid)->type();
  Definition definition;
  definition.rows = interface.tableName() + '\n' + type.name() + '\n' + type.definition();
  definition.key = tableInfo_.fieldBitwidths(rid);
  for (const uint32_t id : tableInfo_.actionIdColForTable(rid).actionId()) {
    definition.actions.emplace_back(id, tableInfo_.fieldBitwidths({actionResource, id}));
  }
  definition.needsPriority = tableInfo_.priorityNeeded(rid);
  definition.unprogrammable = tableInfo_.unprogrammable(rid);
  return definition;
}

// Entries that come with the pipeline may change with it.
bool StandingTables::canStand(const ResourceId& rid) const {
  return rid.type == tableResource && tableInfo_.rowConstructor(rid) &&
         tableInfo_.constEntries(rid).entry().empty();
}

void StandingTables::remember() {
  tables_.clear();
  for (const auto& [rid, interface] : tableInfo_.latticeTableInterfaceCollection().values()) {
    if (canStand(rid)) tables_.emplace(rid.id, definition(rid, *interface));
  }
}

std::vector<uint32_t> StandingTables::ids() const {
  std::vector<uint32_t> ids;
  for (const auto& [id, former] : tables_) {
    const ResourceId rid{tableResource, id};
    const auto& interface = tableInfo_.latticeTableInterface(rid);
    const bool isReady = interface && interface->ready();
    if (isReady && canStand(rid) && definition(rid, *interface) == former) ids.push_back(id);
  }
  return ids;
}

}  // namespace P4Runtime
