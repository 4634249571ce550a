#include "P4Runtime/table/target/TableFetch.h"

#include <algorithm>
#include <cassert>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiTables");

constexpr size_t fixedBytesPerEntry = 24;  // handle, priority, type, properties, direct resources
constexpr size_t directBytes = 8;          // action id and size
constexpr size_t indirectBytes = 8;        // handle

void putEntry(FetchBuffer& buffer, const TableRecordView& record) {
  buffer.put(record.key.entryHandle);
  buffer.put(record.matchKeyPriority);
  buffer.put(record.matchKeyData.data(), record.matchKeyData.size());
  buffer.put(uint32_t{record.entryType});
  if (record.entryType == TableCacheEntry::directEntry) {
    buffer.put(record.actionId);
    buffer.put(static_cast<uint32_t>(record.actionData.size()));
    buffer.put(record.actionData.data(), record.actionData.size());
  } else if (record.entryType == TableCacheEntry::indirectEntry) {
    buffer.put(record.indirectHandle);
  } else {
    assert(0 && "Unhandled table_entry type");  // unreadable records never come this far
  }
  buffer.put(uint32_t{0});  // entry properties
  buffer.put(uint32_t{0});  // direct resources
}

}  // namespace

size_t computeFetchDataSize(const TableImpl& tableImpl, const ResourceId& rid, size_t entries) {
  const P4TableInfo& tableInfo = tableImpl.tableInfo();
  size_t action = 0;
  for (const uint32_t actionId : tableInfo.actionIdColForTable(rid).actionId()) {
    action = std::max(action, tableInfo.fieldBitwidths({actionResource, actionId}).encodedSize());
  }
  return entries * (fixedBytesPerEntry + tableInfo.fieldBitwidths(rid).encodedSize() +
                    std::max(directBytes + action, indirectBytes));
}

size_t populateFetchData(const TableImpl& tableImpl, const ResourceId& rid, FetchBuffer& buffer) {
  const size_t keySize = tableImpl.tableInfo().fieldBitwidths(rid).encodedSize();
  size_t entries = 0;
  tableImpl.tableCache()->forEachOf(rid, [&](const TableRecordView& record) {
    if (record.matchKeyData.size() != keySize) {
      SCRIVEL_TRACE(0, "populateFetchData", " unreadable record in table ", rid.id);
      return true;
    }
    if (!tableImpl.handleMgr().entryHandleToResourceIdHas(record.key.entryHandle)) return true;
    if (!buffer.fits(fixedBytesPerEntry + directBytes + keySize + record.actionData.size())) {
      SCRIVEL_TRACE(0, "populateFetchData", " record too large for table ", rid.id);
      return true;
    }
    putEntry(buffer, record);
    ++entries;
    return true;
  });
  return entries;
}

}  // namespace P4Runtime
