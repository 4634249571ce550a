// After a restart: gives the members and groups that survived in the caches back to the handle
// manager, the tables and the PI library.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/Restoring.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/records/CacheWalk.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

// One pass over the member cache or the group cache. Records that cannot be used are removed once
// the pass is done, with their rows.
class ActionProfileRestorer {
 public:
  explicit ActionProfileRestorer(TableImpl& tableImpl)
      : tableImpl_(tableImpl), p4info_(pi_get_device_p4info(tableImpl.deviceId())) {}

  void restoreMembers(RestoreCounts* counts) {
    using Record = ActionProfileMemberCacheEntry;
    counts->members +=
        restoreAll<Record>(*tableImpl_.memberCache(), counts,
                           [this](const Record& record) { return restored(record); });
  }

  void restoreGroups(RestoreCounts* counts) {
    using Record = ActionProfileGroupCacheEntry;
    counts->groups += restoreAll<Record>(*tableImpl_.groupCache(), counts,
                                         [this](const Record& record) { return restored(record); });
  }

 private:
  static constexpr const char* notTaken =
      "its handle is another's, or none that was ever given out";

  // Answers how many are back; `restore` answers why one is not.
  template <typename Record, typename Restore>
  size_t restoreAll(EntryCache<Record>& cache, RestoreCounts* counts, Restore restore) {
    size_t back = 0;
    std::vector<std::string> unusable;  // stored keys
    forEachCopied(cache, [&](Brine::Bytes key, Brine::Bytes stored) {
      Record record;
      const std::string why = record.deserialize(stored.data(), stored.size())
                                  ? restore(record)
                                  : std::string("unreadable record");
      if (why.empty()) {
        ++back;
        return;
      }
      const CacheKey of = cacheKeyOf(key);
      SCRIVEL_TRACE(0, "TableImpl", " cannot restore action profile entry[ rid:", of.rid.id,
                    " entryHandle:", of.entryHandle, " ]: ", why);
      unusable.emplace_back(Brine::asText(key));
      counts->unusable.push_back(fmt::format("{}: {}", textOf(of, record), why));
    });
    for (const std::string& key : unusable) {
      cache.storedKeyDel(Brine::asBytes(key));
      tableImpl_.database_->store().erase(*tableImpl_.metadataTable_, Brine::asBytes(key));
    }
    return back;
  }

  // By the controller's id where the record tells it.
  std::string textOf(const CacheKey& key, const ActionProfileMemberCacheEntry& record) const {
    return textOf("member", key, record.memberId);
  }
  std::string textOf(const CacheKey& key, const ActionProfileGroupCacheEntry& record) const {
    return textOf("group", key, record.groupId);
  }
  std::string textOf(const char* what, const CacheKey& key, uint32_t id) const {
    const std::string profile = tableImpl_.tableInfo().nameOf({actionProfileResource, key.rid.id});
    if (id != 0) return fmt::format("{} {} of action profile {}", what, id, profile);
    return fmt::format("a {} of action profile {}, handle {}", what, profile, key.entryHandle);
  }

  std::string restored(const ActionProfileMemberCacheEntry& record) {
    const ResourceId& rid = record.key.rid;
    P4HandleMgr& handles = tableImpl_.handleMgr();
    const bool taken = rid.type == actionProfileResource &&
                       record.memberHandle == record.key.entryHandle &&
                       handles.restoreMemberHandle(rid.id, record.memberHandle);
    const auto program = [&] {
      tableImpl_.actionProfileMemberEntryAdd(rid.id, record.actionId, record.actionData.size(),
                                             chars(record), record.memberHandle);
    };
    SCRIVEL_TRACE(6, "TableImpl", " Restoring action member entry[ rid:", rid.id,
                  " entryHandle:", record.key.entryHandle, " ]");
    if (!taken) return notTaken;
    return programmed(handles.memberHandleToEntryHandle(record.memberHandle), program,
                      [&] { return handBack(record); });
  }

  std::string restored(const ActionProfileGroupCacheEntry& stored) {
    const ResourceId& rid = stored.key.rid;
    P4HandleMgr& handles = tableImpl_.handleMgr();
    const bool taken = rid.type == groupTableResource &&
                       stored.groupHandle == stored.key.entryHandle &&
                       handles.restoreGroupHandle(rid.id, stored.groupHandle);
    SCRIVEL_TRACE(6, "TableImpl", " Restoring action group entry[ rid:", rid.id,
                  " entryHandle:", stored.key.entryHandle, " ]");
    if (!taken) return notTaken;
    const ActionProfileGroupCacheEntry record = withMembersThere(stored);
    return programmed(
        handles.groupHandleToEntryHandle(record.groupHandle), [&] { programGroup(record); },
        [&] { return handBack(record); });
  }

  // Common to both kinds: empty when it is back, else why not; then nothing of it is left but its
  // record.
  template <typename Program, typename HandBack>
  std::string programmed(EntryHandle handle, Program program, HandBack handBack) {
    std::string why;
    try {
      program();
      if (isTakenBack(handBack())) return {};
      why = "the pipeline does not accept it";
    } catch (const P4RuntimeException& e) {
      if (!isProofAgainstRecord(e)) throw;
      why = e.what();
    } catch (const Lattice::TypeError& e) {
      why = e.what();
    }
    removeRow(handle);
    tableImpl_.handleMgr().freeEntryHandle(handle);
    return why;
  }

  // A member that could not be restored is in no group any more.
  ActionProfileGroupCacheEntry withMembersThere(const ActionProfileGroupCacheEntry& stored) {
    ActionProfileGroupCacheEntry record = stored;
    std::vector<MemberHandle> there(stored.members.begin(), stored.members.end());
    std::erase_if(there, [&](MemberHandle member) {
      return member >> 32 != 0 || !tableImpl_.handleMgr().memberHandleToEntryHandleHas(member);
    });
    record.members.elementsAre(there);
    if (record != stored) tableImpl_.groupCache()->cacheIs(record);
    return record;
  }

  // The row is written whole: member by member, every one would be a change for the forwarding
  // agents. A group that has no row has none yet; one that is empty may have had members before.
  void programGroup(const ActionProfileGroupCacheEntry& record) {
    const TableImpl::Table table = tableImpl_.requireTable(record.key.rid);
    if (record.members.size() == 0 && !hasRow(table, record.groupHandle)) return;
    TableImpl::GroupMembers members(record.members.begin(), record.members.end());
    tableImpl_.writeGroup(table, record.groupHandle, members);
  }

  static bool hasRow(const TableImpl::Table& table, GroupHandle handle) {
    const auto id = static_cast<uint32_t>(handle);
    const auto* field = reinterpret_cast<const uint8_t*>(&id);
    return table.interface.row(table.constructor.constructKey({&field, 1})).has_value();
  }

  // The row may have been written just now, so that it is not among the committed ones yet.
  void removeRow(EntryHandle handle) try {
    const ResourceId rid = tableImpl_.handleMgr().entryHandleToResourceId(handle);
    const auto& interface = tableImpl_.tableInfo().latticeTableInterface(rid);
    const auto& constructor = tableImpl_.tableInfo().rowConstructor(rid);
    if (!interface || !constructor || !interface->ready()) return;
    const auto id = static_cast<uint32_t>(P4HandleMgr::cachedHandle(handle));
    const auto* field = reinterpret_cast<const uint8_t*>(&id);
    interface->rowDel(constructor->constructKey({&field, 1}), handle);
  } catch (const Lattice::TypeError&) {  // no row of ours has a key of such a type
  }

  pi_status_t handBack(const ActionProfileMemberCacheEntry& record) {
    pi_action_data_t action{};
    action.p4info = p4info_;
    action.action_id = record.actionId;
    action.data_size = record.actionData.size();
    action.data = chars(record);
    const std::string metadata = tableImpl_.cachedMetadata(record.key);
    return pi_restore_action_profile_member_state(tableImpl_.deviceId(), record.key.rid.id, &action,
                                                  record.memberId, record.memberHandle,
                                                  metadata.data(), metadata.size());
  }

  pi_status_t handBack(const ActionProfileGroupCacheEntry& record) {
    const std::string metadata = tableImpl_.cachedMetadata(record.key);
    return pi_restore_action_profile_group_state(
        tableImpl_.deviceId(), record.key.rid.id, record.groupId, record.members.data(),
        record.members.size(), record.groupHandle, metadata.data(), metadata.size());
  }

  static char* chars(const ActionProfileMemberCacheEntry& record) {
    return const_cast<char*>(reinterpret_cast<const char*>(record.actionData.data()));
  }

  TableImpl& tableImpl_;
  const pi_p4info_t* p4info_;
};

void TableImpl::restoreActionMemberCachedEntries() {
  if (!memberCache_) return;
  const Restoring restoring(restoring_);
  ActionProfileRestorer(*this).restoreMembers(&restored_);
}

void TableImpl::restoreActionGroupCachedEntries() {
  if (!groupCache_) return;
  const Restoring restoring(restoring_);
  ActionProfileRestorer(*this).restoreGroups(&restored_);
}

}  // namespace P4Runtime
