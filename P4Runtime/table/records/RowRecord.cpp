#include "P4Runtime/table/records/RowRecord.h"

#include <vector>

#include "platform/lattice/records/Packing.h"

namespace P4Runtime {
namespace {

constexpr uint8_t indirectFlag = 1;
constexpr uint8_t priorityFlag = 2;
constexpr uint8_t metadataFlag = 4;

void encodeHead(uint8_t flags, const MatchKey& key, uint64_t controllerMetadata,
                std::string& bytes) {
  if (key.priority != 0) flags |= priorityFlag;
  if (controllerMetadata != 0) flags |= metadataFlag;
  bytes.clear();
  Lattice::append(bytes, flags);
}

void encodeTail(const MatchKey& key, uint64_t controllerMetadata, std::string& bytes) {
  if (key.priority != 0) Lattice::append(bytes, key.priority);
  if (controllerMetadata != 0) Lattice::append(bytes, controllerMetadata);
  Lattice::append(bytes, static_cast<uint16_t>(key.bytes.size()));
  bytes.append(key.bytes);
}

std::span<const uint8_t> spanOf(std::string_view bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
}

std::string_view textOf(const CachePodArray<uint8_t>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

void encodeRecord(const MatchKey& key, const ActionData& action, uint64_t controllerMetadata,
                  std::string& bytes) {
  encodeHead(0, key, controllerMetadata, bytes);
  Lattice::append(bytes, action.actionId);
  encodeTail(key, controllerMetadata, bytes);
  bytes.append(action.bytes);
}

void encodeRecord(const MatchKey& key, const MemberOrGroup& target, uint64_t controllerMetadata,
                  std::string& bytes) {
  encodeHead(indirectFlag, key, controllerMetadata, bytes);
  Lattice::append(bytes, target.handle);
  encodeTail(key, controllerMetadata, bytes);
}

void encodeRecord(const TableCacheEntry& entry, std::string& bytes) {
  const MatchKey key{.tableId = entry.key.rid.id,
                     .priority = static_cast<uint32_t>(entry.matchKeyPriority),
                     .bytes = textOf(entry.matchKeyData)};
  if (entry.entryType == TableCacheEntry::indirectEntry) {
    return encodeRecord(key, MemberOrGroup{.handle = entry.indirectHandle},
                        entry.controllerMetadata, bytes);
  }
  encodeRecord(key, ActionData{.actionId = entry.actionId, .bytes = textOf(entry.actionData)},
               entry.controllerMetadata, bytes);
}

std::optional<TableRecordView> recordOf(const ResourceId& table, const Lattice::StoredRow& row) {
  if (row.attachment.empty()) return std::nullopt;
  Lattice::Unpacker from(row.attachment);
  const auto flags = from.take<uint8_t>();
  TableRecordView record;
  record.key = {table, row.entryHandle};
  record.entryState = row.unsettled ? EntryState::pendingToBeAdded : EntryState::stable;
  const bool isIndirect = flags & indirectFlag;
  record.entryType = isIndirect ? TableCacheEntry::indirectEntry : TableCacheEntry::directEntry;
  if (isIndirect) {
    record.indirectHandle = from.take<uint64_t>();
  } else {
    record.actionId = from.take<uint32_t>();
  }
  if (flags & priorityFlag) record.matchKeyPriority = from.take<uint32_t>();
  if (flags & metadataFlag) record.controllerMetadata = from.take<uint64_t>();
  record.matchKeyData = spanOf(from.takeBytes(from.take<uint16_t>()));
  record.actionData = spanOf(from.takeBytes(from.left()));
  const bool isKnown = (flags & ~(indirectFlag | priorityFlag | metadataFlag)) == 0;
  if (from.bad() || !isKnown) return std::nullopt;
  return record;
}

TableCacheEntry entryOf(const TableRecordView& record) {
  TableCacheEntry entry;
  entry.key = record.key;
  entry.entryState = record.entryState;
  entry.matchKeyPriority = static_cast<int32_t>(record.matchKeyPriority);
  entry.entryType = record.entryType;
  entry.indirectHandle = record.indirectHandle;
  entry.actionId = record.actionId;
  entry.controllerMetadata = record.controllerMetadata;
  entry.matchKeyData.elementsAre(record.matchKeyData);
  entry.actionData.elementsAre(record.actionData);
  return entry;
}

}  // namespace P4Runtime
