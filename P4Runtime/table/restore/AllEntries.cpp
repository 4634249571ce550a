// Which push of a controller the entries belong to, and their removal for another one.
#include <cstring>
#include <map>
#include <utility>

#include "P4Runtime/table/restore/Restorer.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

constexpr const char* tableName = "p4runtime/cache/push";
constexpr std::string_view numberKey = "number";

// Each record of the cache, as it is read.
template <typename Record, typename Visit>
void forEachRecord(const EntryCache<Record>& cache, Visit visit) {
  cache.forEach([&](Brine::Bytes, Brine::Bytes stored) {
    Record record;
    if (record.deserialize(stored.data(), stored.size())) visit(record);
    return true;
  });
}

}  // namespace

uint64_t Restorer::pushOfEntries() const {
  if (!tools_.database) return 0;
  Brine::Store& store = tools_.database->store();
  const auto stored = store.get(store.table(tableName), Brine::asBytes(numberKey));
  uint64_t number = 0;
  if (stored && stored->size() == sizeof number) {
    std::memcpy(&number, stored->data(), sizeof number);
  }
  return number;
}

bool Restorer::areOf(uint64_t push) const {
  return !tools_.records.isMounted() || pushOfEntries() == push;
}

// Members of groups and settings of meters stand in rows alone.
void Restorer::setAside() {
  doubtEntries();
  tools_.database->rowTakerIs([this](const std::string& table, const std::string& definition,
                                     const Lattice::StoredRow& row) {
    aside_.push_back({table,
                      definition,
                      {std::string(row.key), std::string(row.value)},
                      row.entryHandle,
                      std::string(row.attachment)});
  });
}

// The number is committed last: what a killed process left goes at the next start. By then there is
// the room of the rows.
void Restorer::forget(uint64_t push) {
  SCRIVEL_TRACE(1, "forget", " all entries go for push ", push);
  doubtEntries();
  std::vector<MemberHandle> members;
  std::vector<GroupHandle> groups;
  forEachRecord(*tools_.records.memberCache(), [&](const ActionProfileMemberCacheEntry& member) {
    members.push_back(member.memberHandle);
  });
  forEachRecord(*tools_.records.groupCache(), [&](const ActionProfileGroupCacheEntry& group) {
    groups.push_back(group.groupHandle);
  });
  tools_.database->emptyTables();
  Brine::Store& store = tools_.database->store();
  const std::string_view number(reinterpret_cast<const char*>(&push), sizeof push);
  store.put(store.table(tableName), Brine::asBytes(numberKey), Brine::asBytes(number));
  tools_.records.delAll();
  constantEntries_.forgetAll();
  for (const std::string& table : tools_.database->keptTables()) tools_.database->keptDel(table);
  tools_.undo.commitOrThrow();
  for (const MemberHandle handle : members) tools_.handles.freeMemberHandle(handle);
  for (const GroupHandle handle : groups) tools_.handles.freeGroupHandle(handle);
  tools_.handles.freeTableEntryHandles();
  tools_.failures.failureDelAll();
  tools_.database->rowTakerIs(nullptr);
  aside_.clear();
}

void Restorer::putBack() {
  if (tools_.database) tools_.database->rowTakerIs(nullptr);
  const std::vector<AsideRow> rows = std::exchange(aside_, {});
  if (rows.empty()) return;
  doubtEntries();
  std::map<std::string, Vela::Ptr<Lattice::ArTableInterface>> tables;
  for (const auto& [rid, table] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (table->ready()) tables[table->tableName()] = table;
  }
  for (const AsideRow& one : rows) {
    const auto found = tables.find(one.table);
    if (found == tables.end()) continue;
    Lattice::ArTableInterface& table = *found->second;
    const bool fits =
        Lattice::TheTypeRegistry().type(table.typeName())->definition() == one.definition;
    if (fits && !table.stored(one.row.key)) table.rowIs(one.row, one.handle, one.attachment);
  }
  tools_.undo.commitOrThrow();
}

}  // namespace P4Runtime
