#include "P4Runtime/table/write/EntryWriter.h"

#include <fmt/format.h>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/table/rows/Refuse.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

EntryHandle EntryWriter::add(const MatchKey& key, const ActionData& action,
                             const DirectResources& direct) {
  validateKeySize(key.bytes.size());
  validateActionSize(action.bytes.size());
  return addEntry(key, direct, [&](const WritableTable& table, RowFields& fields) {
    builder_.appendAction(table.rid, action, fields);
  });
}

EntryHandle EntryWriter::addIndirect(const MatchKey& key, const MemberOrGroup& target,
                                     const DirectResources& direct) {
  validateKeySize(key.bytes.size());
  return addEntry(key, direct, [&](const WritableTable&, RowFields& fields) {
    builder_.appendIndirection(target, fields);
  });
}

// Common to both kinds of entry; `appendAction` gives the row its action or its member or group.
template <typename AppendAction>
EntryHandle EntryWriter::addEntry(const MatchKey& key, const DirectResources& direct,
                                  AppendAction appendAction) {
  const WritableTable table = tables_.require({tableResource, key.tableId});
  bool isNew = false;
  const EntryHandle handle = handles_.getOrCreateTableEntryHandle(
      key.tableId, key.bytes.size(), key.bytes.data(), key.priority, &isNew);
  try {
    return writeEntry(table, key, handle, isNew, direct, appendAction);
  } catch (const P4RuntimeException& e) {
    // With the handle in it, the exception's handler puts the entry back and frees the handle.
    if (isNew && e.entryHandle == 0) handles_.freeTableEntryHandle(handle);
    throw;
  }
}

template <typename AppendAction>
EntryHandle EntryWriter::writeEntry(const WritableTable& table, const MatchKey& key,
                                    EntryHandle handle, bool isNew, const DirectResources& direct,
                                    AppendAction appendAction) {
  if (isNew) tables_.maybeCheckTableSizeLimit(table.rid, handle);  // a change always fits
  RowFields& fields = builder_.startEntry(table, key.bytes);
  appendAction(table, fields);
  builder_.appendDirectResources(table.rid, direct, fields);
  builder_.appendPriority(table, key.priority, fields);
  return writer_.write(table, handle, isNew, fields);
}

EntryHandle EntryWriter::deleteEntry(const MatchKey& key) {
  validateKeySize(key.bytes.size());
  const WritableTable table = tables_.require({tableResource, key.tableId});
  RowFields& fields = builder_.startEntry(table, key.bytes);
  if (!table.needsPriority && key.priority != 0) {
    SCRIVEL_TRACE(1, "TableImpl", " unexpected non-zero priority for resource ", key.tableId);
  }
  builder_.appendPriority(table, key.priority, fields);
  const std::string rowKey = table.constructor.constructKey(fields.all());
  const EntryHandle handle = handles_.getEntryHandleFromMatchKey(key.tableId, key.bytes.size(),
                                                                 key.bytes.data(), key.priority);
  if (handle == 0) {
    refuse(ErrorCode::invalidKey,
           fmt::format("table {} has no entry with this match key", tableInfo_.nameOf(table.rid)));
  }
  return writer_.deleteRow(table, handle, rowKey);
}

}  // namespace P4Runtime
