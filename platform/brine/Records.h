// Records in one LMDB database, with keys longer than LMDB's limit.
//
// A key of up to 500 bytes stands as it is. A longer one stands under its first 500 bytes, a hash
// of the whole (8 bytes, big-endian) and a number (2 bytes, big-endian) that tells keys of one hash
// apart, counted from 0 without gaps; its value begins with the key's size (u32, little-endian) and
// the whole key.
#pragma once

#include <lmdb.h>

#include <optional>

#include "platform/brine/Store.h"

namespace Brine {

inline constexpr size_t plainKeyLimit = 500;
inline constexpr size_t longKeySize = plainKeyLimit + 8 + 2;
inline constexpr size_t keyLimit = 2048;

inline MDB_val asVal(Bytes bytes) { return {bytes.size(), const_cast<uint8_t*>(bytes.data())}; }
inline Bytes asBytes(const MDB_val& value) {
  return {static_cast<const uint8_t*>(value.mv_data), value.mv_size};
}

// All answer an LMDB error code, MDB_NOTFOUND for an absent record.
int recordFound(MDB_txn* txn, MDB_dbi dbi, Bytes key, Bytes* value);
// `room` is where the caller puts the value's bytes.
int recordPut(MDB_cursor* cursor, Bytes key, size_t size, uint8_t** room);
int recordErased(MDB_cursor* cursor, Bytes key);
// Ascending by whole key, from `from` on. Records that are not of the layout are passed over.
int recordsVisited(MDB_txn* txn, MDB_dbi dbi, const Store::Visit& visit, Bytes from);

// For tests: all long keys get this hash, so that they collide.
void longKeyHashIs(std::optional<uint64_t> hash);

}  // namespace Brine
