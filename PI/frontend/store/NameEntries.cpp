#include "PI/frontend/store/NameEntries.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/store/NameCodec.h"

namespace pi::fe::proto {

namespace {

// Parameters of each of the actions.
const ParamPlan& lengthOf(const ActionPlan& action) { return action.params[0]; }
const ParamPlan& textOf(const ActionPlan& action) { return action.params[1]; }

}  // namespace

EntryPtr nameEntry(const NamedType& type, uint32_t number, std::string_view name) {
  const auto fits = [&](const ActionUse& use) { return textOf(*use.action).bytes >= name.size(); };
  const ActionPlan& action = *std::ranges::find_if(type.table->actions, fits)->action;
  EntryPtr entry = Entry::make(type.table->id, kNumberBytes, action.dataBytes, 0);
  entry->actionId = action.id;
  putNumber(number, entry->keyData());
  uint8_t* data = entry->actionData();
  std::memset(data, 0, action.dataBytes);
  data[lengthOf(action).offset] = static_cast<uint8_t>(name.size() >> 8);
  data[lengthOf(action).offset + 1] = static_cast<uint8_t>(name.size());
  std::memcpy(data + textOf(action).offset, name.data(), name.size());
  return entry;
}

EntryPtr nameKey(const NamedType& type, uint32_t number) {
  EntryPtr entry = Entry::make(type.table->id, kNumberBytes, 0, 0);
  entry->kind = EntryKind::keyAlone;
  putNumber(number, entry->keyData());
  return entry;
}

std::optional<Dictionary::Pair> namePair(const NamedType& type, const Entry& entry) {
  const ActionUse* use = type.table->actionUse(entry.actionId);
  if (use == nullptr || entry.kind != EntryKind::action) return std::nullopt;
  const ActionPlan& action = *use->action;
  if (entry.actionSize() != action.dataBytes) return std::nullopt;
  const uint8_t* data = entry.actionData();
  const uint8_t* length = data + lengthOf(action).offset;
  const size_t bytes = static_cast<size_t>(length[0]) << 8 | length[1];
  if (bytes == 0 || bytes > textOf(action).bytes) return std::nullopt;
  return Dictionary::Pair{numberAt(entry.keyData()),
                          {reinterpret_cast<const char*>(data + textOf(action).offset), bytes}};
}

}  // namespace pi::fe::proto
