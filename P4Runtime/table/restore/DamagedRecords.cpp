#include "P4Runtime/table/restore/DamagedRecords.h"

#include <fmt/format.h>

#include <cstdio>

#include "P4Runtime/table/records/HandleReservation.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
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
    fmt::print(stderr, "korvel: {}\n", said);
    if (!isOfCache(record)) continue;
    const CacheKey key = cacheKeyOf(Brine::asBytes(record.key));
    tools_.failures.failureIs(entryHandleOf(key), noAgent, 0, said);
  }
  return records;
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
  const std::string text =
      fmt::format("table {}, handle {}", tools_.tableInfo.nameOf(key.rid), key.entryHandle);
  const auto& interface = tools_.tableInfo.latticeTableInterface(key.rid);
  const auto type = interface ? Lattice::TheTypeRegistry().type(interface->typeName()) : nullptr;
  return type ? text + columnsOfEntry(*interface, *type, key.entryHandle) : text;
}

// The key of an entry whose record is damaged stands in its row. Empty without a row.
std::string DamagedRecords::columnsOfEntry(const Lattice::ArTableInterface& interface,
                                           const Lattice::TableType& type,
                                           EntryHandle handle) const {
  std::string text;
  Brine::Store& store = tools_.database->store();
  store.forEach(store.table(Lattice::rowTable(interface.tableName())),
                [&](Brine::Bytes at, Brine::Bytes bytes) {
                  const auto row = Lattice::StoredRow::decode(Brine::asText(bytes));
                  if (!row || row->entryHandle != handle) return true;
                  text = columnsText(type, std::string(Brine::asText(at)));
                  return false;
                });
  return text;
}

Vela::Ptr<Lattice::ArTableInterface> DamagedRecords::interfaceOf(
    const std::string& tableName) const {
  for (const auto& [rid, interface] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (interface->ready() && interface->tableName() == tableName) return interface;
  }
  return nullptr;
}

void DamagedRecords::removeAll(RestoreCounts& counts) {
  std::vector<Brine::DamagedRecord> records = tell();
  std::erase_if(records, [this](const auto& record) { return isRow(record) && removeRow(record); });
  for (const Brine::DamagedRecord& record : records) {
    if (!isOfCache(record)) continue;
    counts.unusable.push_back(text(record));
    const CacheKey key = cacheKeyOf(Brine::asBytes(record.key));
    const bool isEntry = key.rid.type == tableResource && key.entryHandle <= largestEntryHandle;
    if (isEntry) tools_.handles.reserveUpTo(key.entryHandle);  // the list of failures names it
  }
  if (!records.empty()) tools_.database->store().eraseDamaged(records);
}

// Followers hear that the row is gone. False when no table of the pipeline has such rows.
bool DamagedRecords::removeRow(const Brine::DamagedRecord& record) {
  const auto interface = interfaceOf(tableOfRow(record));
  if (!interface) return false;
  if (!interface->row(record.key)) interface->rowDel(record.key, 0);
  return true;
}

}  // namespace P4Runtime
