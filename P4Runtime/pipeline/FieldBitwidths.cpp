#include "P4Runtime/pipeline/FieldBitwidths.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cassert>
#include <regex>

namespace P4Runtime {

FieldBitwidths::FieldBitwidths(const std::string&) {
  assert(!"No String constructor for FieldBitwidths - has collection");
}

size_t FieldBitwidths::encodedSize() const {
  size_t bytes = 0;
  for (uint32_t slot = 0; slot < slots(); ++slot) bytes += (width(slot) + 7) / 8;
  return bytes;
}

ActionIdCol::ActionIdCol(const std::string&) {
  assert(!"No String constructor for ActionIdCol - has collection");
}

bool ActionIdCol::actionIdHas(uint32_t actionId) const {
  const auto& ids = actionIds_.values();
  return std::find(ids.begin(), ids.end(), actionId) != ids.end();
}

P4TableInfoConstEntries::P4TableInfoConstEntries(const std::string&) {
  assert(!"No String constructor for P4TableInfoConstEntries - has collection");
}

std::string toText(const FieldBitwidths& value) {
  return fmt::format(
      "Value('P4Runtime::FieldBitwidths', ** {{'id': {}, 'fieldBitwidth': None, "
      "'fieldInNetworkByteOrder': None, 'fieldIsIpPrefix': None}})",
      toText(value.id));
}

std::string toText(const ActionIdCol& value) {
  return fmt::format("Value('P4Runtime::ActionIdCol', ** {{'tableId': {}, 'actionId': [{}]}})",
                     toText(value.tableId), fmt::join(value.actionId(), ", "));
}

std::string toText(const P4TableInfoConstEntry& value) {
  return fmt::format(
      "Value('P4Runtime::P4TableInfoConstEntry', ** {{'key': {}, 'actionId': {}, "
      "'actionParams': {}, 'priority': {}}})",
      value.key, value.actionId, value.actionParams, value.priority);
}

std::string toText(const P4TableInfoConstEntries& value) {
  std::vector<std::string> entries;
  for (const auto& entry : value.entry()) entries.push_back(toText(entry));
  return fmt::format(
      "Value('P4Runtime::P4TableInfoConstEntries', ** {{'tableId': {}, 'entry': [{}]}})",
      toText(value.tableId), fmt::join(entries, ", "));
}

std::optional<P4TableInfoConstEntry> P4TableInfoConstEntry::fromText(const std::string& text) {
  static const std::regex form(
      R"(Value\('P4Runtime::P4TableInfoConstEntry', \*\* \{'key': ([0-9a-fA-F]*), )"
      R"('actionId': (\d{1,10}), 'actionParams': ([0-9a-fA-F]*), 'priority': (\d{1,10})\}\))");
  std::smatch parts;
  if (!std::regex_match(text, parts, form)) return std::nullopt;
  const uint64_t actionId = std::stoull(parts[2]);
  const uint64_t priority = std::stoull(parts[4]);
  if (actionId > UINT32_MAX || priority > UINT32_MAX) return std::nullopt;
  return P4TableInfoConstEntry{parts[1], static_cast<uint32_t>(actionId), parts[3],
                               static_cast<uint32_t>(priority), false};
}

}  // namespace P4Runtime
