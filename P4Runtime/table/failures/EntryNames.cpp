#include "P4Runtime/table/failures/EntryNames.h"

#include <fmt/format.h>

#include "P4Runtime/table/rows/ProfileRows.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "platform/lattice/types/NamedColumns.h"

namespace P4Runtime {

std::string EntryNames::text(EntryHandle handle) const try {
  const CacheKey cached = cacheKey(handle);
  const ResourceId& rid = cached.rid;
  if (rid.type == actionProfileResource || rid.type == groupTableResource) {
    return memberOrGroupText(cached);
  }
  std::string text = tableInfo_.kindAndName(rid);
  const auto key = rowKey(cached);
  if (!key) return text;
  const Lattice::NameOf nameOf = [this](const std::string& type, uint32_t number) {
    return this->nameOf(type, number);
  };
  for (const auto& column :
       Lattice::namedKeyTexts(tableInfo_.rowConstructor(rid)->type(), *key, nameOf)) {
    text += fmt::format(", {}={}", column.name, column.text);
  }
  return text;
} catch (const Lattice::TypeError&) {  // the record is of another pipeline's table
  return fmt::format("entry {}", handle);
}

// The string that the number of a translated type stands for.
std::optional<std::string> EntryNames::nameOf(const std::string& type, uint32_t number) const {
  const std::string table = Lattice::namesTable(type);
  for (const auto& [rid, interface] : tableInfo_.latticeTableInterfaceCollection().values()) {
    if (interface->tableName() != table || !interface->ready()) continue;
    std::string key;
    for (const int shift : {24, 16, 8, 0}) key += static_cast<char>(number >> shift);
    const auto row = interface->stored(key);
    if (row) return Lattice::nameOfRow(tableInfo_.rowConstructor(rid)->type(), row->value);
  }
  return std::nullopt;
}

uint64_t EntryNames::rowSequence(EntryHandle handle) const try {
  const CacheKey cached = cacheKey(handle);
  const auto& interface = tableInfo_.latticeTableInterface(cached.rid);
  const auto key = interface && interface->ready() ? rowKey(cached) : std::nullopt;
  if (!key || interface->rowEntryHandle(*key) != handle) return 0;
  return interface->rowSequence(*key);
} catch (const Lattice::TypeError&) {
  return 0;
}

CacheKey EntryNames::cacheKey(EntryHandle handle) const {
  return recordKey(handles_.entryHandleToResourceId(handle), handle);
}

// By the controller's id; members and groups of a one-shot action set have none.
std::string EntryNames::memberOrGroupText(const CacheKey& key) const {
  const std::string profile = tableInfo_.nameOf({actionProfileResource, key.rid.id});
  const char* const what = key.rid.type == groupTableResource ? "group" : "member";
  const uint32_t id = controllersId(key);
  if (id == 0) return fmt::format("a {} of a one-shot action set of {}", what, profile);
  return fmt::format("{} {} of action profile {}", what, id, profile);
}

// 0 without one.
uint32_t EntryNames::controllersId(const CacheKey& key) const {
  if (!records_.isMounted()) return 0;
  if (key.rid.type == groupTableResource) {
    const auto record = records_.groupCache()->cache(key);
    return record ? record->groupId : 0;
  }
  const auto record = records_.memberCache()->cache(key);
  return record ? record->memberId : 0;
}

// Nothing where it cannot be told.
std::optional<std::string> EntryNames::rowKey(const CacheKey& cached) const {
  const auto& constructor = tableInfo_.rowConstructor(cached.rid);
  if (!constructor || tableInfo_.unprogrammableHas(cached.rid)) return std::nullopt;
  if (cached.rid.type == tableResource) {
    const auto row = records_.isMounted() ? records_.tableCache()->row(cached) : std::nullopt;
    return row ? std::optional<std::string>(row->key) : std::nullopt;
  }
  return profileRowKey(*constructor, static_cast<uint32_t>(cached.entryHandle));
}

}  // namespace P4Runtime
