// Which push of a controller the entries belong to, and their removal for another one.
#include <cstring>

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

// The number is committed last, or with the rest: what a killed process left goes at the next
// start.
void Restorer::entriesBelongTo(uint64_t push) {
  if (!tools_.records.isMounted() || pushOfEntries() == push) return;
  SCRIVEL_TRACE(1, "entriesBelongTo", " all entries go for push ", push);
  using Member = ActionProfileMemberCacheEntry;
  using Group = ActionProfileGroupCacheEntry;
  forEachRecord(*tools_.records.memberCache(), [this](const Member& member) {
    tools_.handles.freeMemberHandle(member.memberHandle);
  });
  forEachRecord(*tools_.records.groupCache(),
                [this](const Group& group) { tools_.handles.freeGroupHandle(group.groupHandle); });
  tools_.handles.freeTableEntryHandles();
  tools_.failures.failureDelAll();
  tools_.database->clearUnboundTables();
  tools_.records.delAll();
  constantEntries_.forgetAll();
  Brine::Store& store = tools_.database->store();
  const std::string_view number(reinterpret_cast<const char*>(&push), sizeof push);
  store.put(store.table(tableName), Brine::asBytes(numberKey), Brine::asBytes(number));
  tools_.undo.commitOrThrow();
}

}  // namespace P4Runtime
