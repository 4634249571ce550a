// References, action sets, and members and groups as entries.
#include "PI/frontend/store/ProfileObjects.h"

#include <absl/strings/str_cat.h>

#include <cstring>

namespace pi::fe::proto {

namespace {

constexpr size_t kSetHead = sizeof(uint64_t) + sizeof(uint32_t);

void putId(uint32_t id, char* out) {
  for (size_t i = 0; i < kObjectKeyBytes; ++i) out[i] = static_cast<char>(id >> (24 - 8 * i));
}

uint32_t memberCount(const Entry& entry) {
  uint32_t count = 0;
  std::memcpy(&count, entry.actionData() + sizeof(uint64_t), sizeof(count));
  return count;
}

std::string_view actionBytes(const Entry& entry, size_t from) {
  return {reinterpret_cast<const char*>(entry.actionData()) + from, entry.actionSize() - from};
}

// A message that is parsed into again keeps the memory of its elements, which saves most of the
// cost.
template <typename Message>
const Message& peeked(std::string_view bytes) {
  thread_local Message message;
  message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  return message;
}

}  // namespace

ObjectLookup::ObjectLookup(const ObjectId& object) {
  putId(object.id, bytes_);
  lookup_.key = {object.profileId, object.isGroup ? 1u : 0u, {bytes_, sizeof(bytes_)}};
  lookup_.hash = lookup_.key.hash();
}

EntryPtr makeObject(const ObjectId& object, size_t actionSize) {
  EntryPtr entry = Entry::make(object.profileId, kObjectKeyBytes, actionSize, 0);
  entry->priority = object.isGroup ? 1 : 0;
  entry->kind = object.isGroup ? EntryKind::groupObject : EntryKind::memberObject;
  putId(object.id, reinterpret_cast<char*>(entry->keyData()));
  return entry;
}

ObjectId objectId(const Entry& object) {
  uint32_t id = 0;
  for (size_t i = 0; i < kObjectKeyBytes; ++i) id = id << 8 | object.keyData()[i];
  return {object.tableId, object.priority != 0, id};
}

std::string objectText(const ObjectId& object) {
  return absl::StrCat(object.isGroup ? "group " : "member ", object.id);
}

Reference reference(const Entry& entry) {
  Reference result;
  std::memcpy(&result.handle, entry.actionData(), sizeof(result.handle));
  std::memcpy(&result.id, entry.actionData() + sizeof(result.handle), sizeof(result.id));
  return result;
}

void referenceIs(Entry* entry, const Reference& reference) {
  std::memcpy(entry->actionData(), &reference.handle, sizeof(reference.handle));
  std::memcpy(entry->actionData() + sizeof(reference.handle), &reference.id, sizeof(reference.id));
}

size_t actionSetBytes(size_t members, size_t setBytes) {
  return kSetHead + members * sizeof(uint64_t) + setBytes;
}

HiddenHandles hiddenHandles(const Entry& entry) {
  HiddenHandles handles;
  std::memcpy(&handles.group, entry.actionData(), sizeof(handles.group));
  handles.members.resize(memberCount(entry));
  if (handles.members.empty()) return handles;
  std::memcpy(handles.members.data(), entry.actionData() + kSetHead,
              handles.members.size() * sizeof(uint64_t));
  return handles;
}

std::string_view serializedActionSet(const Entry& entry) {
  return actionBytes(entry, kSetHead + memberCount(entry) * sizeof(uint64_t));
}

void actionSetIs(Entry* entry, const HiddenHandles& handles, std::string_view serialized) {
  uint8_t* at = entry->actionData();
  const auto put = [&](const void* bytes, size_t size) {
    if (size != 0) std::memcpy(at, bytes, size);
    at += size;
  };
  const auto count = static_cast<uint32_t>(handles.members.size());
  put(&handles.group, sizeof(handles.group));
  put(&count, sizeof(count));
  put(handles.members.data(), handles.members.size() * sizeof(uint64_t));
  put(serialized.data(), serialized.size());
}

p4::v1::ActionProfileActionSet actionSet(const Entry& entry) {
  p4::v1::ActionProfileActionSet set;
  const std::string_view bytes = serializedActionSet(entry);
  set.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  return set;
}

const p4::v1::ActionProfileActionSet& peekedActionSet(const Entry& entry) {
  return peeked<p4::v1::ActionProfileActionSet>(serializedActionSet(entry));
}

std::string_view serializedGroup(const Entry& group) { return actionBytes(group, 0); }

p4::v1::ActionProfileGroup group(const Entry& group) {
  p4::v1::ActionProfileGroup result;
  result.ParseFromArray(group.actionData(), static_cast<int>(group.actionSize()));
  return result;
}

const p4::v1::ActionProfileGroup& peekedGroup(const Entry& group) {
  return peeked<p4::v1::ActionProfileGroup>(serializedGroup(group));
}

EntryPtr entryAs(const Entry& entry, EntryKind kind, size_t actionSize) {
  const EntryKey key = entry.key();
  const std::string_view metadata = entry.metadata();
  EntryPtr result =
      Entry::make(key.tableId, key.bytes.size(), actionSize, metadata.size(), entry.meter());
  result->priority = key.priority;
  result->handle = entry.handle;
  result->controllerMetadata = entry.controllerMetadata;
  result->kind = kind;
  std::memcpy(result->keyData(), key.bytes.data(), key.bytes.size());
  std::memcpy(result->metadataData(), metadata.data(), metadata.size());
  return result;
}

ObjectIds references(uint32_t profileId, const Entry& entry) {
  ObjectIds result;
  if (entry.kind == EntryKind::toMember || entry.kind == EntryKind::toGroup) {
    result.push_back({profileId, entry.kind == EntryKind::toGroup, reference(entry).id});
  }
  if (entry.kind == EntryKind::groupObject) {
    for (const auto& member : peekedGroup(entry).members()) {
      result.push_back({profileId, false, member.member_id()});
    }
  }
  return result;
}

}  // namespace pi::fe::proto
