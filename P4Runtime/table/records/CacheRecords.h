// The agent's record of truth about each table entry, action-profile member and group that it has
// programmed; the three entry caches hold them.
//
// Packed, little-endian:
//   table entry  key 16 (rid type u32, rid id u32, entryHandle u64) | entryState u32 |
//                matchKeyPriority i32 | entryType u8, 3 bytes of padding | indirectHandle u64 |
//                actionId u32 | controllerMetadata u64 | count u32, matchKeyData |
//                count u32, actionData
//   member       key 16 | actionId u32 | memberId u32 | memberHandle u64 | count u32, actionData
//   group        key 16 | groupId u32 | groupHandle u64 | count u32, members u64 each
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "P4Runtime/table/records/CacheKey.h"
#include "P4Runtime/table/records/CachePodArray.h"
#include "PI/pi_tables.h"

namespace P4Runtime {

enum class EntryState : uint32_t {
  pendingToBeAdded = 0,    // written to the forwarding plane, result not reported yet
  pendingToBeDeleted = 1,  // delete requested, result not reported yet
  stable = 2,              // programming confirmed
};

// A plain value: one thread at a time. An index or a size beyond 2,048 throws std::range_error and
// leaves the record as it was.
struct TableCacheEntry {
  static constexpr size_t headerSize = 48;
  static constexpr size_t stateAt = 16;  // where entryState stands
  static constexpr size_t largestSize = 4152;
  static constexpr uint8_t directEntry = 1;    // entryType: action data
  static constexpr uint8_t indirectEntry = 2;  // entryType: member or group handle

  TableCacheEntry() = default;
  explicit TableCacheEntry(const std::string& text);  // refused: throws Vela::Exception

  CacheKey key;
  EntryState entryState = EntryState::pendingToBeAdded;
  int32_t matchKeyPriority = 0;
  uint8_t entryType = 0;
  uint64_t indirectHandle = 0;
  uint32_t actionId = 0;
  uint64_t controllerMetadata = 0;
  CachePodArray<uint8_t> matchKeyData;  // PI match key bytes
  CachePodArray<uint8_t> actionData;    // PI action data bytes

  void matchKeyDataIs(CachePodArrayIndex i, uint8_t byte) { matchKeyData.elementIs(i, byte); }
  void matchKeyDataDel(CachePodArrayIndex i) { matchKeyData.elementDel(i); }
  void matchKeyDataDelAll() { matchKeyData.elementDelAll(); }
  void actionDataIs(CachePodArrayIndex i, uint8_t byte) { actionData.elementIs(i, byte); }
  void actionDataDel(CachePodArrayIndex i) { actionData.elementDel(i); }
  void actionDataDelAll() { actionData.elementDelAll(); }

  // Everything but the key and the controller metadata. Throws std::range_error for more bytes
  // than a record holds.
  void cloneTableEntry(const pi_match_key_t& matchKey, const pi_table_entry_t& tableEntry);

  size_t serializeLen() const;
  void serialize(uint8_t* buffer) const;  // of serializeLen() bytes
  // False, and nothing certain in the record, when the bytes are cut short, run long, or name an
  // unknown state or entry type.
  bool deserialize(const uint8_t* buffer, size_t length);
  // How much room a reader should keep for the stored record; 0: the counts are not acceptable. It
  // reads the second count four bytes before the place where serialize() puts it, which is kept for
  // compatibility. A reader that must not lose records calls deserialize() instead.
  static size_t deserializeLen(const uint8_t* buffer, size_t length);

  friend bool operator==(const TableCacheEntry&, const TableCacheEntry&) = default;
};

// A stored table record, read in place: valid as long as the bytes are.
struct TableRecordView {
  CacheKey key;
  EntryState entryState = EntryState::pendingToBeAdded;
  uint32_t matchKeyPriority = 0;
  uint8_t entryType = 0;
  uint64_t indirectHandle = 0;
  uint32_t actionId = 0;
  uint64_t controllerMetadata = 0;
  std::span<const uint8_t> matchKeyData;
  std::span<const uint8_t> actionData;

  // Nothing for bytes that TableCacheEntry::deserialize() refuses.
  static std::optional<TableRecordView> of(std::span<const uint8_t> stored);
};

struct ActionProfileMemberCacheEntry {
  static constexpr size_t headerSize = 32;
  static constexpr size_t largestSize = 2084;

  ActionProfileMemberCacheEntry() = default;
  explicit ActionProfileMemberCacheEntry(const std::string& text);  // refused

  CacheKey key;
  uint32_t actionId = 0;
  uint32_t memberId = 0;  // the controller's
  MemberHandle memberHandle = 0;
  CachePodArray<uint8_t> actionData;

  void actionDataIs(CachePodArrayIndex i, uint8_t byte) { actionData.elementIs(i, byte); }
  void actionDataDel(CachePodArrayIndex i) { actionData.elementDel(i); }
  void actionDataDelAll() { actionData.elementDelAll(); }

  void cloneActionProfileMemberEntry(const pi_action_data_t& action);  // actionId and actionData

  size_t serializeLen() const;
  void serialize(uint8_t* buffer) const;
  bool deserialize(const uint8_t* buffer, size_t length);
  static size_t deserializeLen(const uint8_t* buffer, size_t length);

  friend bool operator==(const ActionProfileMemberCacheEntry&,
                         const ActionProfileMemberCacheEntry&) = default;
};

struct ActionProfileGroupCacheEntry {
  static constexpr size_t headerSize = 28;
  static constexpr size_t largestSize = 16416;

  ActionProfileGroupCacheEntry() = default;
  explicit ActionProfileGroupCacheEntry(const std::string& text);  // refused

  CacheKey key;
  uint32_t groupId = 0;  // the controller's
  GroupHandle groupHandle = 0;
  CachePodArray<MemberHandle> members;

  void membersIs(CachePodArrayIndex i, MemberHandle member) { members.elementIs(i, member); }
  void membersDel(CachePodArrayIndex i) { members.elementDel(i); }
  void membersDelAll() { members.elementDelAll(); }

  size_t serializeLen() const;
  void serialize(uint8_t* buffer) const;
  bool deserialize(const uint8_t* buffer, size_t length);
  static size_t deserializeLen(const uint8_t* buffer, size_t length);

  friend bool operator==(const ActionProfileGroupCacheEntry&,
                         const ActionProfileGroupCacheEntry&) = default;
};

std::string toText(const TableCacheEntry& entry);
std::string toText(const ActionProfileMemberCacheEntry& entry);
std::string toText(const ActionProfileGroupCacheEntry& entry);

}  // namespace P4Runtime
