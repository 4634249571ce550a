// The record of a table entry, as it stands behind the entry's row: what the PI library gave for
// it.
//
// Packed, little-endian:
//   flags u8 | actionId u32, or the member's or group's handle u64 | priority u32, if flagged |
//   controllerMetadata u64, if flagged | match key size u16 | match key | action data
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "P4Runtime/table/records/CacheRecords.h"
#include "P4Runtime/table/rows/EntryToWrite.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// Both write the record into `bytes`, replacing what it holds.
void encodeRecord(const MatchKey& key, const ActionData& action, uint64_t controllerMetadata,
                  std::string& bytes);
void encodeRecord(const MatchKey& key, const MemberOrGroup& target, uint64_t controllerMetadata,
                  std::string& bytes);
void encodeRecord(const TableCacheEntry& entry, std::string& bytes);

// The record of a row, read in place: valid as long as the row's views are. Nothing for a row
// without a record, or with an unreadable one.
std::optional<TableRecordView> recordOf(const ResourceId& table, const Lattice::StoredRow& row);

TableCacheEntry entryOf(const TableRecordView& record);

}  // namespace P4Runtime
