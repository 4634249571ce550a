// Entities that are no table entries, as the store keeps them: as entries whose metadata are the
// serialized p4.v1.Entity, in the form in which Reads send it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/store/Entry.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// The first byte of the key of a table with one row, and of default entries, is 0.
EntryPtr makeEntity(const TablePlan& table, uint64_t key, const ActionPlan& action,
                    const p4::v1::Entity& entity);

// Parameters of the entry's action, by their place in it; `value` fits.
void paramIs(const ActionPlan& action, size_t place, uint64_t value, Entry* entry);
uint64_t paramOf(const ActionPlan& action, size_t place, const Entry& entry);

// False, and nothing certain in the entity, when the metadata are no entity of the plan's kind.
bool readEntity(const EntityPlan& plan, const Entry& entry, p4::v1::Entity* entity);

// For rows that came without metadata, such as constant entries: the entity that a row stands for,
// and the row with it as its metadata.
p4::v1::Entity entityOfRow(const TablePlan& table, const Entry& row);
EntryPtr withEntity(const Entry& row, const p4::v1::Entity& entity);
// Adds the replica or member of a row of the list; `isOf`: whether it is that entity's.
bool isOf(const EntityPlan& plan, const Entry& listRow, const Entry& row);
void addListRow(const EntityPlan& plan, const Entry& listRow, p4::v1::Entity* entity);

// The PI keys of the rows of its list, each once; empty for kinds without a list.
std::vector<std::string> listKeys(const EntityPlan& plan, const p4::v1::Entity& entity,
                                  const Naming& naming = {});
EntryPtr makeListRow(const TablePlan& list, const std::string& key);

uint64_t cellIndex(const Entry& cell);

// The row of an entry's idle time-out, in nanoseconds; `entry` lies in another table with that key.
EntryPtr makeIdleTimeout(const TablePlan& timeouts, const Entry& entry, int64_t ns);
int64_t idleTimeoutOf(const TablePlan& timeouts, const Entry& row);

// "counter ingress.hits: cell 3", "multicast group 7"; `key` as the table has it.
std::string entityKeyText(const TablePlan& table, const uint8_t* key);

}  // namespace pi::fe::proto
