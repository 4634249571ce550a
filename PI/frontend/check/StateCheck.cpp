// Checks of an update against the committed entries.
#include "PI/frontend/check/StateCheck.h"

#include <cstring>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/DirectResourceCheck.h"
#include "PI/frontend/store/EntityRows.h"

namespace pi::fe::proto {

using Subject = CheckedUpdate::Subject;
using p4::v1::Update;

namespace {

const char* subjectText(Subject subject) {
  switch (subject) {
    case Subject::member:
      return "member";
    case Subject::group:
      return "group";
    default:
      return "entry";
  }
}

bool isResources(Subject subject) {
  return subject == Subject::directMeter || subject == Subject::directCounter;
}

// Without an entry, that of the program stands, or the state in the beginning.
bool alwaysExists(const TablePlan& table) {
  if (table.isDefaultEntry) return true;
  return table.entity != nullptr &&
         (table.entity->isArray() || table.entity->kind == EntityKind::valueSet);
}

void requireState(const CheckedUpdate& update, const Entry* former) {
  if (update.table != nullptr && alwaysExists(*update.table)) return;
  const char* what = subjectText(update.subject);
  if (update.type == Update::INSERT && former != nullptr) {
    refuse(code::alreadyExists, updateText(update), ": there is such ",
           update.subject == Subject::entry ? "an " : "a ", what, "; use MODIFY");
  }
  if (update.type != Update::INSERT && former == nullptr) {
    refuse(code::notFound, updateText(update), ": there is no such ", what);
  }
}

// Of a constant entry only the direct resources can be changed.
void requireResourcesAlone(const CheckedUpdate& update, bool keepsAction) {
  const bool hasResources = update.table->meter || update.table->counter;
  if (keepsAction && hasResources && !update.slot.entry->hasMetadata()) return;
  refuse(code::permissionDenied, updateText(update), ": the entry is constant");
}

// The same entry once more, with the action that stands now. A TableEntry brings its own metadata
// and meter setting; a DirectMeterEntry the setting alone.
void doKeepAction(CheckedUpdate* update, const Entry& former) {
  EntrySlot& slot = update->slot;
  const Entry& given = *slot.entry;
  const Entry& described = isResources(update->subject) ? former : given;
  const EntryKey key = given.key();
  const std::string_view metadata = described.metadata();
  EntryPtr kept =
      Entry::make(key.tableId, key.bytes.size(), former.actionSize(), metadata.size(),
                  update->subject == Subject::directCounter ? former.meter() : given.meter());
  kept->priority = key.priority;
  kept->controllerMetadata = described.controllerMetadata;
  kept->actionId = former.actionId;
  kept->kind = former.kind;
  kept->isConst = former.isConst;
  std::memcpy(kept->keyData(), key.bytes.data(), key.bytes.size());
  std::memcpy(kept->actionData(), former.actionData(), former.actionSize());
  std::memcpy(kept->metadataData(), metadata.data(), metadata.size());
  slot.entry = std::move(kept);
}

}  // namespace

void StateCheck::prepare(CheckedUpdate* update, const Entry* former) {
  requireState(*update, former);
  if (update->subject == Subject::directCounter && !update->counts()) return;
  const bool isOfResource = isResources(update->subject);
  if (isOfResource && former == nullptr && !update->slot.entry->meter() && !update->counts()) {
    update->type = Update::DELETE;  // of a default entry, which is the program's still
    return;
  }
  if (isOfResource && former == nullptr) requireDefaultAction(*update->table);
  const bool keeps =
      update->type == Update::MODIFY &&
      (update->slot.entry->kind == EntryKind::keyAlone || (isOfResource && former != nullptr));
  if (former != nullptr && former->isConst) requireResourcesAlone(*update, keeps);
  if (update->subject == Subject::entry && update->table->idleTimeouts != nullptr) {
    prepareIdleTimeout(update);
  }
  if (keeps) return doKeepAction(update, *former);
  if (update->table != nullptr && update->table->entity != nullptr) prepareEntity(update, former);
  if (update->profile == nullptr) return;
  if (update->subject == Subject::member) {
    prepareMember(*update);
  } else if (update->subject == Subject::group) {
    prepareGroup(*update, former);
  } else if (update->type != Update::DELETE) {
    prepareEntry(update);
  }
  if (update->type != Update::DELETE) requireRoom(*update, former);
}

// A cell that is set to the same value again is set all the same: the data plane may have changed
// it meanwhile.
void StateCheck::prepareEntity(CheckedUpdate* update, const Entry* former) const {
  const EntityPlan& plan = *update->table->entity;
  if (update->ofAllCells) {
    for (EntrySlot& slot : store_.slotsOf(plan.table->id)) {
      if (slot.entry->isConst) {
        refuse(code::permissionDenied, updateText(*update), ": cell ", cellIndex(*slot.entry),
               " is constant");
      }
      update->withExtras().also.push_back({std::move(slot), true});
    }
  }
  const bool counts = plan.kind == EntityKind::counter || plan.kind == EntityKind::registerArray;
  if (!counts || former == nullptr || update->type == Update::DELETE) return;
  const ActionPlan& action = *update->table->actions.front().action;
  const size_t times = action.params.size() - 1;
  paramIs(action, times, paramOf(action, times, *former) + 1, update->slot.entry.get());
}

void StateCheck::prepareIdleTimeout(CheckedUpdate* update) const {
  const TablePlan& timeouts = *update->table->idleTimeouts;
  EntryPtr row = makeIdleTimeout(timeouts, *update->slot.entry, update->idleTimeout());
  const size_t hash = row->key().hash();
  const bool isDelete = update->idleTimeout() == 0;
  if (isDelete && store_.committed({row->key(), hash}) == nullptr) return;
  update->withExtras().also.push_back({{std::move(row), hash}, isDelete});
}

void StateCheck::prepareMember(const CheckedUpdate& update) const {
  if (update.type == Update::INSERT) requireNoActionSets(update);
  if (update.type == Update::DELETE) requireUnused(update);
}

void StateCheck::prepareGroup(const CheckedUpdate& update, const Entry* former) const {
  if (update.type == Update::DELETE) return requireUnused(update);
  if (update.type == Update::INSERT) requireNoActionSets(update);
  const Entry& entry = *update.slot.entry;
  for (const ObjectId& member : references(update.profile->id, entry)) {
    const ObjectLookup lookup(member);
    if (store_.committed(lookup.lookup()) != nullptr) continue;
    refuse(code::notFound, updateText(update), ": there is no ", objectText(member),
           "; insert it first");
  }
  if (former == nullptr) return;
  const int32_t inserted = peekedGroup(*former).max_size();
  const int32_t given = peekedGroup(entry).max_size();
  if (given == inserted) return;
  refuse(code::invalidArgument, updateText(update), ": max_size is ", given, "; it was inserted ",
         "with ", inserted, ", which cannot change");
}

void StateCheck::prepareEntry(CheckedUpdate* update) const {
  Entry* entry = update->slot.entry.get();
  if (entry->kind == EntryKind::actionSet) return requireNoObjects(*update);
  requireNoActionSets(*update);
  const uint32_t profileId = update->profile->id;
  for (const ObjectId& object : references(profileId, *entry)) {
    const ObjectLookup lookup(object);
    const Entry* target = store_.committed(lookup.lookup());
    if (target == nullptr) {
      refuse(code::notFound, updateText(*update), ": action profile ", update->profile->name,
             " has no ", objectText(object), "; insert it first");
    }
    referenceIs(entry, {target->handle, object.id});
  }
}

void StateCheck::requireUnused(const CheckedUpdate& update) const {
  const ProfileUse::Users users = use_.users(objectId(*update.slot.entry));
  if (!users.any()) return;
  refuse(code::failedPrecondition, updateText(update), ": it is used by ", users.groups,
         users.groups == 1 ? " group and " : " groups and ", users.entries,
         users.entries == 1 ? " table entry" : " table entries", "; change or delete those first");
}

void StateCheck::requireNoActionSets(const CheckedUpdate& update) const {
  const uint64_t others = use_.total(update.profile->id).actionSets;
  if (others == 0) return;
  refuse(code::invalidArgument, updateText(update), ": the profile is used by ", others,
         others == 1 ? " table entry" : " table entries",
         " with one-shot action sets; delete those first, or use action sets only");
}

void StateCheck::requireNoObjects(const CheckedUpdate& update) const {
  const uint64_t others = use_.total(update.profile->id).objects;
  if (others == 0) return;
  refuse(code::invalidArgument, updateText(update), ": action profile ", update.profile->name,
         " has ", others,
         " members and groups, which do not mix with one-shot action sets; delete those first, "
         "or use members and groups only");
}

void StateCheck::requireRoom(const CheckedUpdate& update, const Entry* former) {
  const ProfilePlan& profile = *update.profile;
  const uint64_t wanted = sizeTaken(profile, *update.slot.entry);
  const uint64_t given = former == nullptr ? 0 : sizeTaken(profile, *former);
  if (profile.size == 0 || wanted <= given) return;
  uint64_t& promised = promised_[profile.id];
  const uint64_t size = use_.total(profile.id).size + promised + (wanted - given);
  if (size > profile.size) {
    refuse(code::resourceExhausted, updateText(update), ": action profile ", profile.name,
           " would have the size ", size, "; it may have ", profile.size);
  }
  promised += wanted - given;
}

}  // namespace pi::fe::proto
