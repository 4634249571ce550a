#include "platform/brine/Records.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/brine/Hash.h"

namespace Brine {
namespace {

std::optional<uint64_t> fixedHash;

struct LongKey {
  std::array<uint8_t, longKeySize> bytes;

  explicit LongKey(Bytes key) {
    std::copy_n(key.begin(), plainKeyLimit, bytes.begin());
    const uint64_t hash = fixedHash ? *fixedHash : hashOf(key, 0);
    for (int i = 0; i < 8; ++i)
      bytes[plainKeyLimit + i] = static_cast<uint8_t>(hash >> (56 - 8 * i));
    numberIs(0);
  }
  void numberIs(uint16_t number) {
    bytes[longKeySize - 2] = static_cast<uint8_t>(number >> 8);
    bytes[longKeySize - 1] = static_cast<uint8_t>(number);
  }
  MDB_val val() { return {bytes.size(), bytes.data()}; }
};

struct Whole {
  Bytes key;
  Bytes value;
};

bool same(Bytes a, Bytes b) { return std::ranges::equal(a, b); }
bool before(Bytes a, Bytes b) { return std::ranges::lexicographical_compare(a, b); }

constexpr size_t sumSize = 4;

uint32_t sumOf(Bytes key, Bytes value) {
  return static_cast<uint32_t>(hashOf(value, hashOf(key, 0)));
}

// Takes a long record apart; nothing when its bytes have changed since they were stored.
std::optional<Whole> wholeOf(Bytes stored) {
  if (stored.size() < 4) return std::nullopt;
  const uint64_t keySize = loaded<uint32_t>(stored.data());
  if (keySize <= plainKeyLimit || keySize > keyLimit || stored.size() - 4 < keySize) {
    return std::nullopt;
  }
  const Bytes key = stored.subspan(4, keySize);
  const auto value = soundValue(key, stored.subspan(4 + keySize));
  if (!value) return std::nullopt;
  return Whole{key, *value};
}

// The record that LMDB has under that key; nothing when it is damaged.
std::optional<Whole> recordAt(Bytes storedKey, Bytes stored) {
  if (storedKey.size() != longKeySize) {
    const auto value = soundValue(storedKey, stored);
    return value ? std::optional(Whole{storedKey, *value}) : std::nullopt;
  }
  const auto whole = wholeOf(stored);
  const bool right = whole && same(storedKey.first(longKeySize - 2),
                                   Bytes(LongKey(whole->key).bytes).first(longKeySize - 2));
  return right ? whole : std::nullopt;
}

// Writes the value and its checksum.
void writeSummed(uint8_t* room, Bytes key, Bytes value) {
  const uint32_t sum = sumOf(key, value);
  if (!value.empty()) std::memcpy(room, value.data(), value.size());
  std::memcpy(room + value.size(), &sum, sumSize);
}

// Where a long key stands, or the first free number of its hash (then MDB_NOTFOUND).
template <typename Get>
int located(LongKey& stored, Bytes key, MDB_val* value, const Get& get) {
  for (uint32_t number = 0; number <= UINT16_MAX; ++number) {
    stored.numberIs(static_cast<uint16_t>(number));
    if (const int error = get(stored.val(), value)) return error;
    const auto whole = wholeOf(asBytes(*value));
    if (whole && same(whole->key, key)) return MDB_SUCCESS;
  }
  return MDB_MAP_FULL;
}

int longFound(MDB_txn* txn, MDB_dbi dbi, Bytes key, Bytes* value) {
  LongKey stored(key);
  MDB_val found;
  const int error = located(stored, key, &found,
                            [&](MDB_val at, MDB_val* out) { return mdb_get(txn, dbi, &at, out); });
  if (error == MDB_SUCCESS) *value = wholeOf(asBytes(found))->value;
  return error;
}

int cursorGet(MDB_cursor* cursor, MDB_val key, MDB_val* value) {
  return mdb_cursor_get(cursor, &key, value, MDB_SET_KEY);
}

int longPut(MDB_cursor* cursor, Bytes key, Bytes value) {
  LongKey stored(key);
  MDB_val found;
  int error = located(stored, key, &found,
                      [&](MDB_val at, MDB_val* out) { return cursorGet(cursor, at, out); });
  if (error != MDB_SUCCESS && error != MDB_NOTFOUND) return error;
  MDB_val at = stored.val();
  MDB_val room{4 + key.size() + value.size() + sumSize, nullptr};
  if ((error = mdb_cursor_put(cursor, &at, &room, MDB_RESERVE))) return error;
  auto* bytes = static_cast<uint8_t*>(room.mv_data);
  const auto keySize = static_cast<uint32_t>(key.size());
  std::memcpy(bytes, &keySize, 4);
  std::memcpy(bytes + 4, key.data(), key.size());
  writeSummed(bytes + 4 + key.size(), key, value);
  return MDB_SUCCESS;
}

// The last key of the same hash takes the place of the erased one, so that numbers have no gaps.
int longErased(MDB_cursor* cursor, Bytes key) {
  LongKey stored(key);
  MDB_val found;
  const auto get = [&](MDB_val at, MDB_val* out) { return cursorGet(cursor, at, out); };
  if (const int error = located(stored, key, &found, get)) return error;
  const LongKey gap = stored;
  LongKey last = stored;
  std::vector<uint8_t> moved;
  for (uint32_t number = stored.bytes[longKeySize - 2] << 8 | stored.bytes[longKeySize - 1];
       number < UINT16_MAX; ++number) {
    stored.numberIs(static_cast<uint16_t>(number + 1));
    if (get(stored.val(), &found) != MDB_SUCCESS) break;
    last = stored;
    moved.assign(asBytes(found).begin(), asBytes(found).end());
  }
  if (!moved.empty()) {
    LongKey to = gap;
    MDB_val at = to.val();
    MDB_val value = asVal(moved);
    if (const int error = mdb_cursor_put(cursor, &at, &value, 0)) return error;
  }
  if (const int error = get(last.val(), &found)) return error;
  return mdb_cursor_del(cursor, 0);
}

// Long keys of one prefix stand in the order of their hashes; gathers them to sort by key.
class LongGroup {
 public:
  void add(Bytes storedKey, const Whole& whole) {
    prefix_ = storedKey.first(plainKeyLimit);
    members_.push_back(whole);
  }
  bool takes(const MDB_val& key) const {
    return members_.empty() || same(prefix_, asBytes(key).first(plainKeyLimit));
  }
  bool visited(const RecordVisit& visit, Bytes from) {
    std::ranges::sort(members_,
                      [](const Whole& a, const Whole& b) { return before(a.key, b.key); });
    for (const Whole& member : members_) {
      if (!before(member.key, from) && !visit(member.key, member.value)) return false;
    }
    members_.clear();
    return true;
  }

 private:
  Bytes prefix_;
  std::vector<Whole> members_;
};

int allVisited(MDB_cursor* cursor, const RecordVisit& visit, Bytes from,
               const DamagedVisit& damaged) {
  MDB_val key = asVal(from.first(std::min(from.size(), plainKeyLimit)));
  MDB_val value;
  LongGroup group;
  int error = mdb_cursor_get(cursor, &key, &value, from.empty() ? MDB_FIRST : MDB_SET_RANGE);
  for (; error == MDB_SUCCESS; error = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) {
    const bool isLong = key.mv_size == longKeySize;
    if ((!isLong || !group.takes(key)) && !group.visited(visit, from)) return MDB_SUCCESS;
    const Bytes at = asBytes(key);
    const auto found = recordAt(at, asBytes(value));
    if (!found) {
      damaged(at);
    } else if (isLong) {
      group.add(at, *found);
    } else if (!before(at, from) && !visit(at, found->value)) {
      return MDB_SUCCESS;
    }
  }
  if (error == MDB_NOTFOUND) group.visited(visit, from);
  return error == MDB_NOTFOUND ? MDB_SUCCESS : error;
}

using Cursor = std::unique_ptr<MDB_cursor, void (*)(MDB_cursor*)>;

int opened(MDB_txn* txn, MDB_dbi dbi, Cursor* cursor) {
  MDB_cursor* raw = nullptr;
  const int error = mdb_cursor_open(txn, dbi, &raw);
  cursor->reset(raw);
  return error;
}

}  // namespace

std::optional<Bytes> soundValue(Bytes key, Bytes stored) {
  if (stored.size() < sumSize) return std::nullopt;
  const Bytes value = stored.first(stored.size() - sumSize);
  if (loaded<uint32_t>(value.data() + value.size()) != sumOf(key, value)) return std::nullopt;
  return value;
}

int findRecord(MDB_txn* txn, MDB_dbi dbi, Bytes key, Bytes* value) {
  if (key.size() > plainKeyLimit) return longFound(txn, dbi, key, value);
  MDB_val at = asVal(key);
  MDB_val found;
  if (const int error = mdb_get(txn, dbi, &at, &found)) return error;
  const auto sound = soundValue(key, asBytes(found));
  if (!sound) return damagedRecord;
  *value = *sound;
  return MDB_SUCCESS;
}

int putRecord(MDB_cursor* cursor, Bytes key, Bytes value) {
  if (key.size() > plainKeyLimit) return longPut(cursor, key, value);
  MDB_val at = asVal(key);
  MDB_val room{value.size() + sumSize, nullptr};
  const int error = mdb_cursor_put(cursor, &at, &room, MDB_RESERVE);
  if (error == MDB_SUCCESS) writeSummed(static_cast<uint8_t*>(room.mv_data), key, value);
  return error;
}

int eraseRecord(MDB_cursor* cursor, Bytes key) {
  if (key.size() > plainKeyLimit) return longErased(cursor, key);
  MDB_val at = asVal(key);
  MDB_val value;
  if (const int error = mdb_cursor_get(cursor, &at, &value, MDB_SET_KEY)) return error;
  return mdb_cursor_del(cursor, 0);
}

int visitRecords(MDB_txn* txn, MDB_dbi dbi, const RecordVisit& visit, Bytes from,
                 const DamagedVisit& damaged) {
  Cursor cursor(nullptr, mdb_cursor_close);
  if (const int error = opened(txn, dbi, &cursor)) return error;
  return allVisited(cursor.get(), visit, from, damaged);
}

int eraseDamagedRecord(MDB_cursor* cursor, Bytes storedKey) {
  MDB_val at = asVal(storedKey);
  MDB_val value;
  if (const int error = mdb_cursor_get(cursor, &at, &value, MDB_SET_KEY)) return error;
  return recordAt(storedKey, asBytes(value)) ? MDB_SUCCESS : mdb_cursor_del(cursor, 0);
}

int visitNames(MDB_txn* txn, const std::function<bool(std::string_view)>& visit) {
  constexpr MDB_dbi mainDatabase = 1;
  Cursor cursor(nullptr, mdb_cursor_close);
  if (const int error = opened(txn, mainDatabase, &cursor)) return error;
  MDB_val key;
  MDB_val value;
  int error = mdb_cursor_get(cursor.get(), &key, &value, MDB_FIRST);
  while (error == MDB_SUCCESS && visit(asText(asBytes(key)))) {
    error = mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT);
  }
  return error == MDB_NOTFOUND ? MDB_SUCCESS : error;
}

void longKeyHashIs(std::optional<uint64_t> hash) { fixedHash = hash; }

}  // namespace Brine
