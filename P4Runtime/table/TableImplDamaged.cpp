// Records that are not what was stored: named, listed, and, after a restart, removed or written
// again.
#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <vector>

#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "platform/lattice/Packing.h"
#include "platform/lattice/StoreLayout.h"

namespace P4Runtime {
namespace {

// One beyond it, in a damaged key, would not leave room to count on.
constexpr EntryHandle largestHandle = EntryHandle{1} << 62;

constexpr uint64_t noAgent = UINT64_MAX;  // no forwarding agent has failed

// See storedKey().
CacheKey cacheKeyOf(const std::string& stored) {
  const auto number = [&](size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = at; i < at + size; ++i) value = value << 8 | static_cast<uint8_t>(stored[i]);
    return value;
  };
  return {{static_cast<uint32_t>(number(0, 4)), static_cast<uint32_t>(number(4, 4))}, number(8, 8)};
}

// Members and groups have entry handles of their own, with the highest bit set.
EntryHandle entryHandleOf(const CacheKey& key) {
  return key.rid.type == tableResource ? key.entryHandle : EntryHandle{1} << 63 | key.entryHandle;
}

bool isOfCache(const Brine::DamagedRecord& record) {
  return record.table.starts_with("p4runtime/cache/") && record.key.size() == 16;
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

std::vector<Brine::DamagedRecord> TableImpl::tellDamagedRecords() {
  std::vector<Brine::DamagedRecord> records = database_->store().takeDamagedRecords();
  for (const Brine::DamagedRecord& record : records) {
    const std::string text = damagedText(record) + ": its record in shared memory was damaged";
    fmt::print(stderr, "korvel: {}\n", text);
    if (!isOfCache(record)) continue;
    failures_->failureIs(entryHandleOf(cacheKeyOf(record.key)), noAgent, 0, text);
  }
  return records;
}

// The key of an entry whose record is damaged stands in its row.
std::string TableImpl::damagedText(const Brine::DamagedRecord& record) {
  if (record.table.starts_with(Lattice::rowTablePrefix)) {
    const std::string name = record.table.substr(Lattice::rowTablePrefix.size());
    const auto interface = interfaceOf(name);
    const auto type = interface ? Lattice::TheTypeRegistry().type(interface->typeName()) : nullptr;
    const std::string key = type ? columnsText(*type, record.key) : ", key " + hexText(record.key);
    return fmt::format("row of table {}{}", name, key);
  }
  if (!isOfCache(record)) return fmt::format("{}, key {}", record.table, hexText(record.key));
  const CacheKey key = cacheKeyOf(record.key);
  const auto& interface = tableInfo_->latticeTableInterface(key.rid);
  std::string text =
      fmt::format("table {}, handle {}", tableInfo_->nameOf(key.rid), key.entryHandle);
  const auto type = interface ? Lattice::TheTypeRegistry().type(interface->typeName()) : nullptr;
  if (!type) return text;
  Brine::Store& store = database_->store();
  const EntryHandle handle = key.entryHandle;
  store.forEach(store.table(Lattice::rowTable(interface->tableName())),
                [&](Brine::Bytes at, Brine::Bytes bytes) {
                  const auto row = Lattice::StoredRow::decode(Brine::asText(bytes));
                  if (!row || row->entryHandle != handle) return true;
                  text += columnsText(*type, std::string(Brine::asText(at)));
                  return false;
                });
  return text;
}

Vela::Ptr<Lattice::ArTableInterface> TableImpl::interfaceOf(const std::string& tableName) const {
  for (const auto& [rid, interface] : tableInfo_->latticeTableInterfaceCollection().values()) {
    if (interface->ready() && interface->tableName() == tableName) return interface;
  }
  return nullptr;
}

// A row that the restoring has written again stays; followers hear that another one is gone.
void TableImpl::removeDamagedRecords() {
  std::vector<Brine::DamagedRecord> records = tellDamagedRecords();
  std::erase_if(records, [this](const Brine::DamagedRecord& record) {
    if (!record.table.starts_with(Lattice::rowTablePrefix)) return false;
    const auto interface = interfaceOf(record.table.substr(Lattice::rowTablePrefix.size()));
    if (!interface) return false;
    if (!interface->row(record.key)) interface->rowDel(record.key, 0);
    return true;
  });
  for (const Brine::DamagedRecord& record : records) {
    if (!isOfCache(record)) continue;
    restored_.unusable.push_back(damagedText(record));
    const CacheKey key = cacheKeyOf(record.key);
    const bool isEntry = key.rid.type == tableResource && key.entryHandle <= largestHandle;
    if (isEntry) handleMgr_->reserveUpTo(key.entryHandle);  // the list names it by that
  }
  if (!records.empty()) database_->store().eraseDamaged(records);
}

}  // namespace P4Runtime
