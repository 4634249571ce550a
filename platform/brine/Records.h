// Records in one LMDB database, each with a checksum, and with keys longer than LMDB's limit.
//
// A stored value ends with a checksum of key and value (u32, little-endian).
//
// A key of up to 500 bytes stands as it is. A longer one stands under its first 500 bytes, a hash
// of the whole (8 bytes, big-endian) and a number (2 bytes, big-endian) that tells keys of one hash
// apart, counted from 0 without gaps; its value begins with the key's size (u32, little-endian) and
// the whole key.
#pragma once

#include <lmdb.h>

#include <optional>

#include "platform/brine/StoreTerms.h"

namespace Brine {

inline constexpr size_t plainKeyLimit = 500;
inline constexpr size_t longKeySize = plainKeyLimit + 8 + 2;
inline constexpr size_t keyLimit = 2048;

inline MDB_val asVal(Bytes bytes) { return {bytes.size(), const_cast<uint8_t*>(bytes.data())}; }
inline Bytes asBytes(const MDB_val& value) {
  return {static_cast<const uint8_t*>(value.mv_data), value.mv_size};
}

// The record under the key is not the one that was stored there.
inline constexpr int damagedRecord = -1;

// All return an LMDB error code, MDB_NOTFOUND for an absent record; findRecord() also
// damagedRecord.
int findRecord(MDB_txn* txn, MDB_dbi dbi, Bytes key, Bytes* value);
int putRecord(MDB_cursor* cursor, Bytes key, Bytes value);
int eraseRecord(MDB_cursor* cursor, Bytes key);
// Ascending by whole key, from `from` on. `damaged` gets the key of a damaged record as LMDB has
// it.
using DamagedVisit = std::function<void(Bytes storedKey)>;
int visitRecords(MDB_txn* txn, MDB_dbi dbi, const RecordVisit& visit, Bytes from,
                 const DamagedVisit& damaged);
// Erases the record of that stored key if it is damaged.
int eraseDamagedRecord(MDB_cursor* cursor, Bytes storedKey);
// A stored value of a key of up to 500 bytes without its checksum; nothing when that is wrong.
std::optional<Bytes> soundValue(Bytes key, Bytes stored);
// The names of all tables, the store's own included. Stops when `visit` returns false.
int visitNames(MDB_txn* txn, const std::function<bool(std::string_view)>& visit);

// For tests: all long keys get this hash, so that they collide.
void longKeyHashIs(std::optional<uint64_t> hash);

}  // namespace Brine
