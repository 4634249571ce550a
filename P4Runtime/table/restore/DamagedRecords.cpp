#include "P4Runtime/table/restore/DamagedRecords.h"

#include <fmt/format.h>

#include <utility>

#include "P4Runtime/table/records/HandleReservation.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

constexpr uint64_t noAgent = UINT64_MAX;  // no forwarding agent has failed
constexpr size_t mostNameBytes = 256;

// Members and groups have entry handles of their own, with the highest bit set.
EntryHandle entryHandleOf(const CacheKey& key) {
  return key.rid.type == tableResource ? key.entryHandle : EntryHandle{1} << 63 | key.entryHandle;
}

bool isOfCache(const Brine::DamagedRecord& record) {
  return record.table.starts_with(cachePath) && record.key.size() == 16;
}

bool isRow(const Brine::DamagedRecord& record) {
  return record.table.starts_with(Lattice::rowTablePrefix);
}

std::string tableOfRow(const Brine::DamagedRecord& record) {
  return record.table.substr(Lattice::rowTablePrefix.size());
}

std::string hexText(const std::string& bytes) {
  std::string text = "0x";
  for (const char c : bytes) text += fmt::format("{:02x}", static_cast<uint8_t>(c));
  return text;
}

std::string columnsText(const Lattice::TableType& type, const std::string& key) try {
  std::string text;
  for (const auto& column : Lattice::keyTexts(type, key)) {
    text += fmt::format(", {}={}", column.name, column.text);
  }
  return text;
} catch (const Lattice::TypeError&) {
  return ", key " + hexText(key);
}

}  // namespace

std::vector<Brine::DamagedRecord> DamagedRecords::tell() {
  std::vector<Brine::DamagedRecord> records = tools_.database->store().takeDamagedRecords();
  for (const Brine::DamagedRecord& record : records) {
    const std::string said = text(record) + ": its record in shared memory was damaged";
    Vela::tellError("{}", said);
    if (const EntryHandle handle = lostEntry(record)) {
      tools_.failures.failureIs(handle, noAgent, 0, said);
    }
  }
  told_.insert(told_.end(), records.begin(), records.end());
  return records;
}

// The handle of the entry, member or group that the record was all there is of; 0: of none.
EntryHandle DamagedRecords::lostEntry(const Brine::DamagedRecord& record) const {
  if (isOfCache(record)) return entryHandleOf(cacheKeyOf(Brine::asBytes(record.key)));
  if (!isRow(record) || record.owner > largestEntryHandle) return 0;
  return record.owner;
}

std::string DamagedRecords::text(const Brine::DamagedRecord& record) const {
  if (isRow(record)) return rowText(tableOfRow(record), record.key);
  if (isOfCache(record)) return recordText(cacheKeyOf(Brine::asBytes(record.key)));
  if (record.table == Lattice::typesTable) {
    return "list of tables, table " + Vela::plainLine(record.key, mostNameBytes);
  }
  return fmt::format("{}, key {}", record.table, hexText(record.key));
}

std::string DamagedRecords::rowText(const std::string& tableName, const std::string& key) const {
  const auto interface = interfaceOf(tableName);
  const auto type = interface ? Lattice::TheTypeRegistry().type(interface->typeName()) : nullptr;
  return fmt::format("row of table {}{}", tableName,
                     type ? columnsText(*type, key) : ", key " + hexText(key));
}

std::string DamagedRecords::recordText(const CacheKey& key) const {
  return fmt::format("table {}, handle {}", tools_.tableInfo.nameOf(key.rid), key.entryHandle);
}

Vela::Ptr<Lattice::ArTableInterface> DamagedRecords::interfaceOf(
    const std::string& tableName) const {
  for (const auto& [rid, interface] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (interface->ready() && interface->tableName() == tableName) return interface;
  }
  return nullptr;
}

void DamagedRecords::removeAll(RestoreCounts& counts) {
  tell();
  const std::vector<Brine::DamagedRecord> records = std::exchange(told_, {});
  for (const Brine::DamagedRecord& record : records) {
    if (isRow(record)) removeRow(record);
    const EntryHandle handle = lostEntry(record);
    if (handle == 0) continue;
    counts.unusable.push_back(text(record));
    if (handle <= largestEntryHandle) tools_.handles.reserveUpTo(handle);  // the failures name it
  }
  if (!records.empty()) tools_.database->store().eraseDamaged(records);
}

// Followers hear that the row is gone.
void DamagedRecords::removeRow(const Brine::DamagedRecord& record) {
  const auto interface = interfaceOf(tableOfRow(record));
  if (interface && !interface->row(record.key)) interface->rowDel(record.key, 0);
}

}  // namespace P4Runtime
