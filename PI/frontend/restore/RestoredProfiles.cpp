// Members and groups that the target hands back after a restart.
#include "PI/frontend/restore/RestoredProfiles.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/restore/RestoredSet.h"
#include "PI/frontend/store/HeldNames.h"
#include "PI/frontend/store/WatchPorts.h"
#include "PI/frontend/target/TargetCalls.h"
#include "PI/pi_act_prof.h"
#include "PI/pi_extensions.h"

namespace pi::fe::proto {

using p4::v1::ActionProfileGroup;

namespace {

// How often each member stands in the group, in the order of first appearance.
std::vector<std::pair<uint64_t, uint32_t>> counted(std::span<const uint64_t> members) {
  std::vector<std::pair<uint64_t, uint32_t>> counts;
  absl::flat_hash_map<uint64_t, size_t> position;
  for (const uint64_t member : members) {
    const auto [found, isNew] = position.try_emplace(member, counts.size());
    if (isNew) counts.emplace_back(member, 0);
    ++counts[found->second].second;
  }
  return counts;
}

// Without handles of the target, which must be the same multiset of members, in any order.
bool agrees(const ActionProfileGroup& written, const ActionProfileGroup& shown) {
  const auto shares = [](const ActionProfileGroup& group) {
    std::vector<std::pair<uint32_t, uint32_t>> result;
    for (const auto& member : group.members()) {
      result.emplace_back(member.member_id(), repeats(member.weight()));
    }
    std::sort(result.begin(), result.end());
    return result;
  };
  return written.action_profile_id() == shown.action_profile_id() &&
         written.group_id() == shown.group_id() && written.max_size() >= 0 &&
         shares(written) == shares(shown);
}

// The watch ports of the members that are left.
void doKeepWatches(const ActionProfileGroup& written, ActionProfileGroup* shown) {
  absl::flat_hash_map<uint32_t, const ActionProfileGroup::Member*> byId;
  for (const auto& member : written.members()) byId[member.member_id()] = &member;
  for (auto& member : *shown->mutable_members()) {
    const auto found = byId.find(member.member_id());
    if (found == byId.end()) continue;
    if (found->second->has_watch()) member.set_watch(found->second->watch());
    if (found->second->has_watch_port()) member.set_watch_port(found->second->watch_port());
  }
}

}  // namespace

pi_status_t RestoredProfiles::memberIs(uint32_t profileId, const pi_action_data_t* action,
                                       uint32_t controllerId, uint64_t handle) {
  const ProfilePlan* profile = index_.profile(profileId);
  if (profile == nullptr) return PI_STATUS_NETV_INVALID_OBJ_ID;
  if (action == nullptr || members_.contains(handle)) return PI_STATUS_INVALID_ENTRY_TYPE;
  const ActionUse* use = profile->actionUse(action->action_id);
  if (use == nullptr || use->action->dataBytes != action->data_size) {
    return PI_STATUS_INVALID_ENTRY_TYPE;
  }
  EntryPtr object = makeObject({profileId, false, controllerId}, action->data_size);
  object->handle = handle;
  object->actionId = action->action_id;
  if (action->data_size != 0) {
    std::memcpy(object->actionData(), action->data, action->data_size);
  }
  if (controllerId != 0) {
    if (store_.entry(object->key())) return PI_STATUS_INVALID_ENTRY_TYPE;
    store_.entryIs(object);
    use_.countChange(*profile, nullptr, object.get());
    holdNames(*profile, nullptr, *object);
  }
  members_[handle] = {std::move(object), false};
  return PI_STATUS_SUCCESS;
}

pi_status_t RestoredProfiles::groupIs(uint32_t profileId, uint32_t controllerId,
                                      std::span<const uint64_t> members, uint64_t handle,
                                      std::string_view bytes) {
  const ProfilePlan* profile = index_.profile(profileId);
  if (profile == nullptr) return PI_STATUS_NETV_INVALID_OBJ_ID;
  if (!profile->withSelector || groups_.contains(handle)) return PI_STATUS_INVALID_ENTRY_TYPE;
  if (!areMembers(*profile, members, controllerId == 0)) return PI_STATUS_INVALID_ENTRY_TYPE;
  Group group{profileId, controllerId, {members.begin(), members.end()}, {}, false};
  if (controllerId == 0) {
    group.bytes = bytes;
  } else {
    const std::string kept = groupBytes(*profile, controllerId, members, bytes);
    EntryPtr object = makeObject({profileId, true, controllerId}, kept.size());
    if (store_.entry(object->key())) return PI_STATUS_INVALID_ENTRY_TYPE;
    object->handle = handle;
    std::memcpy(object->actionData(), kept.data(), kept.size());
    use_.countChange(*profile, nullptr, object.get());
    holdNames(*profile, nullptr, *object);
    maybeRememberWatching(*profile, nullptr, object);
    store_.entryIs(std::move(object));
  }
  groups_[handle] = std::move(group);
  return PI_STATUS_SUCCESS;
}

bool RestoredProfiles::areMembers(const ProfilePlan& profile, std::span<const uint64_t> members,
                                  bool hidden) const {
  return std::all_of(members.begin(), members.end(), [&](uint64_t handle) {
    const auto found = members_.find(handle);
    if (found == members_.end()) return false;
    const ObjectId id = objectId(*found->second.object);
    return id.profileId == profile.id && (id.id == 0) == hidden;
  });
}

// Weights from the repeats, unless the group as it was written has the very same ones.
std::string RestoredProfiles::groupBytes(const ProfilePlan& profile, uint32_t id,
                                         std::span<const uint64_t> members,
                                         std::string_view bytes) const {
  ActionProfileGroup shown;
  shown.set_action_profile_id(profile.id);
  shown.set_group_id(id);
  for (const auto& [handle, repeats] : counted(members)) {
    auto* member = shown.add_members();
    member->set_member_id(objectId(*members_.at(handle).object).id);
    if (!profile.weightsDisallowed) member->set_weight(static_cast<int32_t>(repeats));
  }
  ActionProfileGroup written;
  const bool parsed = written.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  if (parsed && agrees(written, shown)) return std::string(bytes);
  if (!parsed) return shown.SerializeAsString();
  shown.set_max_size(std::max(written.max_size(), 0));
  doKeepWatches(written, &shown);
  return shown.SerializeAsString();
}

EntryPtr RestoredProfiles::resolve(const TablePlan& table, const Entry& unresolved) {
  const uint64_t handle = reference(unresolved).handle;
  const auto group = groups_.find(handle);
  if (group != groups_.end() && group->second.id == 0) {
    return withActionSet(table, unresolved, &group->second);
  }
  const auto member = members_.find(handle);
  const bool isGroup = group != groups_.end();
  if (!isGroup && member == members_.end()) return {};
  const ObjectId id = isGroup ? ObjectId{group->second.profileId, true, group->second.id}
                              : objectId(*member->second.object);
  if (id.id == 0 || id.profileId != table.profile->id) return {};
  EntryPtr entry =
      entryAs(unresolved, isGroup ? EntryKind::toGroup : EntryKind::toMember, kReferenceBytes);
  referenceIs(entry.get(), {handle, id.id});
  return entry;
}

EntryPtr RestoredProfiles::withActionSet(const TablePlan& table, const Entry& unresolved,
                                         Group* group) {
  if (group->claimed || group->profileId != table.profile->id) return {};
  const std::vector<HiddenMember> members = hiddenMembers(*group);
  for (const HiddenMember& member : members) {
    if (members_.at(member.handle).claimed) return {};
  }
  for (const HiddenMember& member : members) members_.at(member.handle).claimed = true;
  group->claimed = true;
  const RestoredSet restored = restoredSet(table, members, group->bytes);
  const std::string bytes = restored.set.SerializeAsString();
  EntryPtr entry = entryAs(unresolved, EntryKind::actionSet,
                           actionSetBytes(restored.members.size(), bytes.size()));
  actionSetIs(entry.get(), {reference(unresolved).handle, restored.members}, bytes);
  maybeRememberWatching(*table.profile, &table, entry);
  return entry;
}

std::vector<HiddenMember> RestoredProfiles::hiddenMembers(const Group& group) const {
  std::vector<HiddenMember> members;
  for (const auto& [handle, repeats] : counted(group.members)) {
    members.push_back({handle, members_.at(handle).object, repeats});
  }
  return members;
}

void RestoredProfiles::maybeRememberWatching(const ProfilePlan& profile, const TablePlan* table,
                                             const EntryPtr& entry) {
  if (profile.watchPorts == nullptr || !watchesAny(*entry)) return;
  watching_.push_back({&profile, table, entry});
}

void RestoredProfiles::doMendWatchPorts(const TargetSession& session) {
  for (const Watching& one : watching_) {
    if (one.table != nullptr) reassign(*one.table, one.entry.get());
  }
  for (const auto& profile : index_.profiles()) {
    if (profile->watchPorts != nullptr) doMendWatchPorts(session, *profile);
  }
}

// Of members that look alike, each element takes the one whose port it watches.
void RestoredProfiles::reassign(const TablePlan& table, Entry* entry) const {
  const HiddenHandles handles = hiddenHandles(*entry);
  std::vector<HiddenMember> members = hiddenMembers(groups_.at(handles.group));
  const TablePlan& rows = *table.profile->watchPorts;
  for (HiddenMember& member : members) {
    const std::string key = watchKey(handles.group, member.handle);
    const EntryPtr row = store_.entry({rows.id, 0, key});
    member.port = row ? portOfWatchRow(rows, *row) : 0;
  }
  const std::string bytes(serializedActionSet(*entry));
  if (const auto inOrder = membersByPort(table, members, bytes)) {
    actionSetIs(entry, {handles.group, *inOrder}, bytes);
  }
}

// Not in a batch, as below.
void RestoredProfiles::doMendWatchPorts(const TargetSession& session, const ProfilePlan& profile) {
  WatchedPorts ports;
  for (const Watching& one : watching_) {
    if (one.profile == &profile) ports.merge(watchedPorts(store_, profile, *one.entry));
  }
  const TablePlan& rows = *profile.watchPorts;
  std::vector<Change> changes;
  for (EntrySlot& slot : store_.slotsOf(rows.id)) {
    const auto wanted = ports.find(std::string(slot.entry->key().bytes));
    const bool isRight =
        wanted != ports.end() && wanted->second == portOfWatchRow(rows, *slot.entry);
    if (isRight) {
      ports.erase(wanted);
    } else if (wanted == ports.end()) {
      changes.push_back({std::move(slot), true});
    }
  }
  for (const auto& [key, port] : ports) {
    EntryPtr row = makeWatchRow(rows, key, port);
    const size_t hash = row->key().hash();
    changes.push_back({{std::move(row), hash}, false});
  }
  std::erase_if(changes, [&](const Change& change) {
    TargetCalls calls(session, 0);
    calls.contextIs(0, 0, {});
    calls.rowChange(rows, change);
    return calls.status() != PI_STATUS_SUCCESS;
  });
  pi_batch_current_clear();
  store_.commit(changes);
}

// Not in a batch: nobody waits for the forwarding plane here, and a failure is not the
// controllers'.
void RestoredProfiles::doDeleteUnclaimed(const TargetSession& session) {
  pi_batch_current_clear();
  for (const auto& [handle, group] : groups_) {
    if (group.id != 0 || group.claimed) continue;
    pi_act_prof_grp_delete(session.handle, session.deviceId, group.profileId, handle);
  }
  for (const auto& [handle, member] : members_) {
    const ObjectId id = objectId(*member.object);
    if (id.id != 0 || member.claimed) continue;
    pi_act_prof_mbr_delete(session.handle, session.deviceId, id.profileId, handle);
  }
}

}  // namespace pi::fe::proto
