#include "P4Runtime/table/records/CacheRecords.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <bit>
#include <cstring>

#include "PI/int/pi_int.h"
#include "PI/pi_tables.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

static_assert(std::endian::native == std::endian::little, "records are copied as they stand");

constexpr uint32_t capacity = CachePodArray<uint8_t>::capacity;

// Writes fields one after another.
class Writer {
 public:
  explicit Writer(uint8_t* at) : at_(at) {}
  template <typename T>
  Writer& put(T value) {
    std::memcpy(at_, &value, sizeof value);
    at_ += sizeof value;
    return *this;
  }
  Writer& skip(size_t bytes) {
    std::memset(at_, 0, bytes);
    at_ += bytes;
    return *this;
  }
  Writer& put(const CacheKey& key) {
    return put(key.rid.type).put(key.rid.id).put(key.entryHandle);
  }
  template <typename T>
  Writer& put(const CachePodArray<T>& array) {
    put(array.size());
    const size_t bytes = array.size() * sizeof(T);
    if (bytes > 0) std::memcpy(at_, array.data(), bytes);
    at_ += bytes;
    return *this;
  }

 private:
  uint8_t* at_;
};

// Reads fields one after another; once something did not fit, all that follows is refused.
class Reader {
 public:
  Reader(const uint8_t* at, size_t left) : at_(at), left_(left) {}
  template <typename T>
  Reader& get(T& value) {
    if (!take(sizeof value)) return *this;
    std::memcpy(&value, at_ - sizeof value, sizeof value);
    return *this;
  }
  Reader& skip(size_t bytes) {
    take(bytes);
    return *this;
  }
  Reader& get(CacheKey& key) { return get(key.rid.type).get(key.rid.id).get(key.entryHandle); }
  template <typename T>
  Reader& get(CachePodArray<T>& array) {
    std::span<const uint8_t> bytes;
    getSpan(bytes, sizeof(T));
    std::vector<T> elements(bytes.size() / sizeof(T));
    if (!elements.empty()) std::memcpy(elements.data(), bytes.data(), bytes.size());
    array.elementsAre(elements);
    return *this;
  }
  // A counted array, left where it is.
  Reader& getSpan(std::span<const uint8_t>& bytes, size_t elementSize = 1) {
    uint32_t count = 0;
    get(count);
    ok_ = ok_ && count <= capacity;
    if (take(count * elementSize)) {
      bytes = {at_ - count * elementSize, count * elementSize};
    }
    return *this;
  }
  bool atEnd() const { return ok_ && left_ == 0; }

 private:
  bool take(size_t bytes) {
    ok_ = ok_ && bytes <= left_;
    if (!ok_) return false;
    at_ += bytes;
    left_ -= bytes;
    return true;
  }
  const uint8_t* at_;
  size_t left_;
  bool ok_ = true;
};

uint32_t wordAt(const uint8_t* buffer, size_t at) {
  uint32_t word = 0;
  std::memcpy(&word, buffer + at, sizeof word);
  return word;
}

bool countAcceptable(const uint8_t* buffer, size_t length, size_t at) {
  return length >= at + sizeof(uint32_t) && wordAt(buffer, at) <= capacity;
}

std::span<const uint8_t> bytesOf(const char* data, size_t size) {
  return {reinterpret_cast<const uint8_t*>(data), size};
}

[[noreturn]] void refuseText(const char* type) {
  throw Vela::Exception(fmt::format("No String constructor for {} - has collection", type));
}

}  // namespace

TableCacheEntry::TableCacheEntry(const std::string&) { refuseText("TableCacheEntry"); }

void TableCacheEntry::cloneTableEntry(const pi_match_key_t& matchKey,
                                      const pi_table_entry_t& tableEntry) {
  matchKeyPriority = static_cast<int32_t>(matchKey.priority);
  matchKeyData.elementsAre(bytesOf(matchKey.data, matchKey.data_size));
  entryType = static_cast<uint8_t>(tableEntry.entry_type);
  if (entryType == directEntry) {
    actionId = tableEntry.entry.action_data->action_id;
    actionData.elementsAre(
        bytesOf(tableEntry.entry.action_data->data, tableEntry.entry.action_data->data_size));
  } else if (entryType == indirectEntry) {
    indirectHandle = tableEntry.entry.indirect_handle;
  }
  entryState = EntryState::pendingToBeAdded;
}

size_t TableCacheEntry::serializeLen() const {
  return headerSize + 8 + matchKeyData.size() + actionData.size();
}

void TableCacheEntry::serialize(uint8_t* buffer) const {
  Writer(buffer)
      .put(key)
      .put(static_cast<uint32_t>(entryState))
      .put(matchKeyPriority)
      .put(entryType)
      .skip(3)
      .put(indirectHandle)
      .put(actionId)
      .put(controllerMetadata)
      .put(matchKeyData)
      .put(actionData);
}

std::optional<TableRecordView> TableRecordView::of(std::span<const uint8_t> stored) {
  Reader reader(stored.data(), stored.size());
  TableRecordView view;
  uint32_t state = 0;
  reader.get(view.key).get(state).get(view.matchKeyPriority).get(view.entryType).skip(3);
  reader.get(view.indirectHandle).get(view.actionId).get(view.controllerMetadata);
  reader.getSpan(view.matchKeyData).getSpan(view.actionData);
  if (!reader.atEnd() || state > static_cast<uint32_t>(EntryState::stable)) return std::nullopt;
  if (view.entryType != TableCacheEntry::directEntry &&
      view.entryType != TableCacheEntry::indirectEntry) {
    return std::nullopt;
  }
  view.entryState = static_cast<EntryState>(state);
  return view;
}

bool TableCacheEntry::deserialize(const uint8_t* buffer, size_t length) {
  const auto view = TableRecordView::of({buffer, length});
  if (!view) return false;
  key = view->key;
  entryState = view->entryState;
  matchKeyPriority = static_cast<int32_t>(view->matchKeyPriority);
  entryType = view->entryType;
  indirectHandle = view->indirectHandle;
  actionId = view->actionId;
  controllerMetadata = view->controllerMetadata;
  matchKeyData.elementsAre(view->matchKeyData);
  actionData.elementsAre(view->actionData);
  return true;
}

size_t TableCacheEntry::deserializeLen(const uint8_t* buffer, size_t length) {
  if (!countAcceptable(buffer, length, headerSize)) return 0;
  const uint32_t keySize = wordAt(buffer, headerSize);
  return countAcceptable(buffer, length, headerSize + keySize) ? largestSize : 0;
}

ActionProfileMemberCacheEntry::ActionProfileMemberCacheEntry(const std::string&) {
  refuseText("ActionProfileMemberCacheEntry");
}

void ActionProfileMemberCacheEntry::cloneActionProfileMemberEntry(const pi_action_data_t& action) {
  actionId = action.action_id;
  actionData.elementsAre(bytesOf(action.data, action.data_size));
}

size_t ActionProfileMemberCacheEntry::serializeLen() const {
  return headerSize + 4 + actionData.size();
}

void ActionProfileMemberCacheEntry::serialize(uint8_t* buffer) const {
  Writer(buffer).put(key).put(actionId).put(memberId).put(memberHandle).put(actionData);
}

bool ActionProfileMemberCacheEntry::deserialize(const uint8_t* buffer, size_t length) {
  Reader reader(buffer, length);
  reader.get(key).get(actionId).get(memberId).get(memberHandle).get(actionData);
  return reader.atEnd();
}

size_t ActionProfileMemberCacheEntry::deserializeLen(const uint8_t* buffer, size_t length) {
  return countAcceptable(buffer, length, headerSize) ? largestSize : 0;
}

ActionProfileGroupCacheEntry::ActionProfileGroupCacheEntry(const std::string&) {
  refuseText("ActionProfileGroupCacheEntry");
}

size_t ActionProfileGroupCacheEntry::serializeLen() const {
  return headerSize + 4 + members.size() * sizeof(MemberHandle);
}

void ActionProfileGroupCacheEntry::serialize(uint8_t* buffer) const {
  Writer(buffer).put(key).put(groupId).put(groupHandle).put(members);
}

bool ActionProfileGroupCacheEntry::deserialize(const uint8_t* buffer, size_t length) {
  Reader reader(buffer, length);
  reader.get(key).get(groupId).get(groupHandle).get(members);
  return reader.atEnd();
}

size_t ActionProfileGroupCacheEntry::deserializeLen(const uint8_t* buffer, size_t length) {
  return countAcceptable(buffer, length, headerSize) ? largestSize : 0;
}

std::string toText(const TableCacheEntry& entry) {
  return fmt::format(
      "Value('P4Runtime::TableCacheEntry', ** {{'key': {}, 'entryState': {}, 'matchKeyPriority': "
      "{}, 'entryType': {}, 'indirectHandle': {}, 'actionId': {}, 'controllerMetadata': {}, "
      "'matchKeyData': [{:02x}], 'actionData': [{:02x}]}})",
      toText(entry.key), static_cast<uint32_t>(entry.entryState), entry.matchKeyPriority,
      entry.entryType, entry.indirectHandle, entry.actionId, entry.controllerMetadata,
      fmt::join(entry.matchKeyData, ""), fmt::join(entry.actionData, ""));
}

std::string toText(const ActionProfileMemberCacheEntry& entry) {
  return fmt::format(
      "Value('P4Runtime::ActionProfileMemberCacheEntry', ** {{'key': {}, 'actionId': {}, "
      "'memberId': {}, 'memberHandle': {}, 'actionData': [{:02x}]}})",
      toText(entry.key), entry.actionId, entry.memberId, entry.memberHandle,
      fmt::join(entry.actionData, ""));
}

std::string toText(const ActionProfileGroupCacheEntry& entry) {
  return fmt::format(
      "Value('P4Runtime::ActionProfileGroupCacheEntry', ** {{'key': {}, 'groupId': {}, "
      "'groupHandle': {}, 'members': [{}]}})",
      toText(entry.key), entry.groupId, entry.groupHandle, fmt::join(entry.members, ", "));
}

}  // namespace P4Runtime
