// Runs one update: chooses its target calls, and makes them.
#include "PI/frontend/write/UpdateRun.h"

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <iterator>

#include "PI/frontend/store/ProfileObjects.h"
#include "PI/frontend/store/WatchPorts.h"
#include "PI/frontend/target/TargetGroup.h"
#include "PI/frontend/write/EntityRun.h"
#include "PI/frontend/write/HiddenGroup.h"

namespace pi::fe::proto {

using Subject = CheckedUpdate::Subject;
using p4::v1::ActionProfileGroup;
using p4::v1::Update;

namespace {

void doRunMember(const CheckedUpdate& update, const Entry* former, TargetCalls* calls) {
  Entry& entry = *update.slot.entry;
  const uint32_t profileId = update.profile->id;
  calls->contextIs(objectId(entry).id, 0, {});
  if (former != nullptr) entry.handle = former->handle;
  if (update.type == Update::INSERT) {
    entry.handle = calls->memberCreate(profileId, actionBytes(entry));
  } else if (update.type == Update::MODIFY) {
    calls->memberModify(profileId, entry.handle, actionBytes(entry));
  } else {
    calls->memberDelete(profileId, entry.handle);
  }
}

// In the order in which controllers list the members, new ones first.
std::vector<Share> sharesOf(const EntryStore& store, uint32_t profileId, const Entry* former,
                            const ActionProfileGroup& now) {
  std::vector<Share> shares;
  absl::flat_hash_map<uint32_t, size_t> position;
  const auto share = [&](uint32_t memberId) -> Share& {
    const auto [found, isNew] = position.try_emplace(memberId, shares.size());
    if (isNew) {
      const ObjectLookup member({profileId, false, memberId});
      const Entry* committed = store.committed(member.lookup());
      shares.push_back({committed == nullptr ? 0 : committed->handle, 0, 0});
    }
    return shares[found->second];
  };
  for (const auto& member : now.members()) {
    share(member.member_id()).after = repeats(member.weight());
  }
  if (former == nullptr) return shares;
  for (const auto& member : peekedGroup(*former).members()) {
    share(member.member_id()).before = repeats(member.weight());
  }
  return shares;
}

void doRunGroup(const EntryStore& store, const CheckedUpdate& update, const Entry* former,
                TargetCalls* calls) {
  Entry& entry = *update.slot.entry;
  const uint32_t profileId = update.profile->id;
  const std::string_view bytes = serializedGroup(entry);
  calls->contextIs(objectId(entry).id, 0, bytes);
  if (former != nullptr) entry.handle = former->handle;
  if (update.type == Update::DELETE) return calls->groupDelete(profileId, entry.handle);
  const ActionProfileGroup now = group(entry);
  if (former == nullptr) {
    const auto asked = static_cast<uint32_t>(now.max_size());
    entry.handle = calls->groupCreate(profileId, asked > 0 ? asked : update.profile->maxGroupSize);
  }
  doReshare(calls, profileId, entry.handle, sharesOf(store, profileId, former, now));
  if (former != nullptr && serializedGroup(*former) != bytes) {
    calls->groupBytesSet(profileId, entry.handle);
  }
}

bool hasActionSet(const Entry* entry) {
  return entry != nullptr && entry->kind == EntryKind::actionSet;
}

void doRunEntry(const CheckedUpdate& update, const Entry* former, TargetCalls* calls) {
  Entry* entry = update.slot.entry.get();
  const bool isDelete = update.type == Update::DELETE;
  if (hasActionSet(entry)) doBuildHiddenGroup(*update.table, former, entry, calls);
  calls->contextIs(0, entry->controllerMetadata, entry->metadata());
  if (isDelete) {
    calls->entryDelete(entry);
  } else {
    calls->entryAdd(*update.table, entry, former != nullptr, update.counts());
  }
  if (hasActionSet(former) && !hasActionSet(entry)) {
    doDeleteHiddenGroup(update.profile->id, *former, calls);
  }
  if (!update.also().empty()) doRunAlso(update, calls);
}

// Behind the group and its members, whose handles the rows have.
void doRunWatches(const EntryStore& store, CheckedUpdate* update, const Entry* former,
                  TargetCalls* calls) {
  const Entry* now = update->type == Update::DELETE ? nullptr : update->slot.entry.get();
  std::vector<Change> changes = watchChanges(store, *update->profile, former, now);
  if (changes.empty()) return;
  calls->contextIs(0, 0, {});
  for (const Change& change : changes) {
    calls->rowChange(*update->profile->watchPorts, change);
  }
  std::ranges::move(changes, std::back_inserter(update->withExtras().also));
}

}  // namespace

void doRunUpdate(const EntryStore& store, CheckedUpdate* update, const Entry* former,
                 TargetCalls* calls) {
  if (update->subject == Subject::member) return doRunMember(*update, former, calls);
  if (update->subject == Subject::group) {
    doRunGroup(store, *update, former, calls);
  } else if (update->table->entity != nullptr) {
    return doRunEntity(*update, former, calls);
  } else {
    doRunEntry(*update, former, calls);
  }
  if (update->profile != nullptr) doRunWatches(store, update, former, calls);
}

}  // namespace pi::fe::proto
