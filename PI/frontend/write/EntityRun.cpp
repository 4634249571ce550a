// Runs an update of an entity that is no table entry.
#include "PI/frontend/write/EntityRun.h"

#include <absl/container/flat_hash_set.h>

#include "PI/frontend/store/EntityRows.h"

namespace pi::fe::proto {

namespace {

using Keys = absl::flat_hash_set<std::string>;

Keys keysOf(const EntityPlan& plan, const Entry& entry) {
  p4::v1::Entity entity;
  if (!readEntity(plan, entry, &entity)) return {};
  const std::vector<std::string> keys = listKeys(plan, entity);
  return {keys.begin(), keys.end()};
}

// Rows that stand before and after are left as they are.
void doRunList(const CheckedUpdate& update, const Entry* former, TargetCalls* calls) {
  const EntityPlan& plan = *update.table->entity;
  const bool isDelete = update.type == p4::v1::Update::DELETE;
  const Keys before = former == nullptr ? Keys() : keysOf(plan, *former);
  const Keys after = isDelete ? Keys() : keysOf(plan, *update.slot.entry);
  calls->contextIs(0, 0, {});
  for (const std::string& key : before) {
    if (!after.contains(key)) calls->entryDelete(makeListRow(*plan.list, key).get());
  }
  for (const std::string& key : after) {
    if (!before.contains(key)) {
      calls->entryAdd(*plan.list, makeListRow(*plan.list, key).get(), false);
    }
  }
}

}  // namespace

void doRunAlso(const CheckedUpdate& update, TargetCalls* calls) {
  calls->contextIs(0, 0, {});
  for (const Change& change : update.also()) {
    calls->rowChange(*update.table->idleTimeouts, change);
  }
}

void doRunEntity(const CheckedUpdate& update, const Entry* former, TargetCalls* calls) {
  Entry* entry = update.slot.entry.get();
  doRunAlso(update, calls);
  if (update.type != p4::v1::Update::DELETE) {
    calls->contextIs(0, 0, entry->metadata());
    calls->entryAdd(*update.table, entry, former != nullptr);
  } else if (former != nullptr) {
    calls->entryDelete(entry);
  }
  if (update.table->entity->list != nullptr) doRunList(update, former, calls);
}

}  // namespace pi::fe::proto
