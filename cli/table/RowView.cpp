#include "cli/table/RowView.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "platform/lattice/types/DirectColumns.h"
#include "platform/vela/Json.h"

namespace {

using Lattice::ColumnText;
using Vela::Json;

std::string hexText(std::string_view bytes) {
  std::string text = "0x";
  for (const char c : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return text;
}

// Columns of a key or a value; the raw bytes when they do not have the type's layout.
std::vector<ColumnText> columns(const TableDump& dump, const DumpedTable& table,
                                const std::string& bytes, bool key) {
  try {
    if (table.type) {
      return key ? keyColumns(dump.names, table, bytes) : valueColumns(dump.names, table, bytes);
    }
  } catch (const Lattice::TypeError&) {
  }
  return {{key ? "key" : "value", hexText(bytes)}};
}

std::string joined(const std::vector<ColumnText>& columns) {
  std::string text;
  for (const auto& column : columns) {
    text += fmt::format("{}{}={}", text.empty() ? "" : " ", column.name, column.text);
  }
  return text;
}

// "7" for "0x00000007", for people.
std::string shortNumber(const std::string& text) {
  if (!text.starts_with("0x") || text.size() > 18) return text;
  return std::to_string(std::strtoull(text.c_str(), nullptr, 16));
}

// "set_nexthop nexthop_id=7"
std::string actionText(const DumpedMember& member) {
  std::string text;
  for (const ColumnText& column : member.action) {
    if (!text.empty()) text += ' ';
    text += column.name == "action" ? column.text
                                    : fmt::format("{}={}", column.name, shortNumber(column.text));
  }
  return text;
}

std::string controllerIdText(const std::optional<uint32_t>& id) {
  if (!id) return "";
  return *id == 0 ? " (one-shot)" : fmt::format(" (controller id {})", *id);
}

// "3 x2, 4 x1"
std::string weightsText(const DumpedGroup& group) {
  std::string text;
  for (const auto& [id, weight] : group.members) {
    text += fmt::format("{}{} x{}", text.empty() ? "" : ", ", id, weight);
  }
  return text;
}

const DumpedMember* memberIn(const TableDump& dump, uint32_t id) {
  const auto found = dump.profiles.members.find(id);
  return found == dump.profiles.members.end() ? nullptr : &found->second;
}
const DumpedGroup* groupIn(const TableDump& dump, uint32_t id) {
  const auto found = dump.profiles.groups.find(id);
  return found == dump.profiles.groups.end() ? nullptr : &found->second;
}

// "group 2 (members 3 x2, 4 x1)"
std::string targetText(const TableDump& dump, const IndirectTarget& target) {
  const std::string name = fmt::format("{} {}", target.isGroup ? "group" : "member", target.id);
  if (!target.isGroup) {
    const DumpedMember* member = memberIn(dump, target.id);
    if (!member) return name + " (which is not there)";
    const char* kind = member->controllerId == 0u ? "one-shot: " : "";
    return fmt::format("{} ({}{})", name, kind, actionText(*member));
  }
  const DumpedGroup* group = groupIn(dump, target.id);
  if (!group) return name + " (which is not there)";
  const char* kind = group->controllerId == 0u ? "one-shot: " : "";
  if (group->members.empty()) return fmt::format("{} ({}empty)", name, kind);
  return fmt::format("{} ({}members {})", name, kind, weightsText(*group));
}

// The columns that have no better form.
std::vector<ColumnText> plainColumns(const TableDump& dump, const DumpedTable& table,
                                     const DumpedRow& row) {
  std::vector<ColumnText> texts = columns(dump, table, row.value, false);
  const bool leads = table.kind == TableKind::indirect && indirectTarget(table, row);
  std::erase_if(texts, [&](const ColumnText& column) {
    const bool direct = column.name.starts_with("meter.") || column.name.starts_with("counter.");
    return direct || (leads && (column.name == "indirect_id" || column.name == "is_group"));
  });
  return texts;
}

void append(std::string& text, const std::string& more) {
  if (!text.empty() && !more.empty()) text += ' ';
  text += more;
}

std::string valueText(const TableDump& dump, const DumpedTable& table, const DumpedRow& row) {
  std::string text;
  if (table.kind == TableKind::indirect) {
    if (const auto target = indirectTarget(table, row)) text = targetText(dump, *target);
  }
  append(text, joined(plainColumns(dump, table, row)));
  if (!table.type) return text;
  if (const auto meter = Lattice::meterOfRow(*table.type, row.value)) {
    append(text, meter->given ? fmt::format("meter cir={} cburst={} pir={} pburst={}", meter->cir,
                                            meter->cburst, meter->pir, meter->pburst)
                              : "meter default");
  }
  const auto counter = Lattice::counterOfRow(*table.type, row.value);
  if (counter && counter->given) {
    append(text,
           fmt::format("counter set to packets={} bytes={}", counter->packets, counter->bytes));
  }
  return text;
}

std::string countText(const RowCount& count) {
  std::string text = fmt::format("  packets={} bytes={}", count.packets, count.bytes);
  if (count.packetsPerSecond) text += fmt::format(" ({:.0f}/s)", *count.packetsPerSecond);
  return text;
}

std::string memberLine(const TableDump& dump, uint32_t id) {
  const DumpedMember* member = memberIn(dump, id);
  if (!member) return fmt::format("  member {}", id);
  return fmt::format("  member {}{}: {}", id, controllerIdText(member->controllerId),
                     actionText(*member));
}

std::string groupLine(const TableDump& dump, uint32_t id) {
  const DumpedGroup* group = groupIn(dump, id);
  if (!group) return fmt::format("  group {}", id);
  return fmt::format("  group {}{}: {}", id, controllerIdText(group->controllerId),
                     group->members.empty() ? "empty" : "members " + weightsText(*group));
}

Json columnsJson(const std::vector<ColumnText>& columns) {
  Json json(cJSON_CreateObject());
  for (const auto& column : columns) {
    cJSON_AddStringToObject(json.get(), column.name.c_str(), column.text.c_str());
  }
  return json;
}

// 64-bit numbers are texts, since readers would round them.
void addNumber(cJSON* json, const char* name, uint64_t number) {
  cJSON_AddStringToObject(json, name, std::to_string(number).c_str());
}

void addControllerId(cJSON* json, const std::optional<uint32_t>& id) {
  if (id == 0u) cJSON_AddTrueToObject(json, "oneShot");
  if (id && *id != 0) cJSON_AddNumberToObject(json, "controllerId", *id);
}

void addMember(cJSON* json, const TableDump& dump, uint32_t id) {
  cJSON_AddNumberToObject(json, "member", id);
  const DumpedMember* member = memberIn(dump, id);
  if (!member) return;
  addControllerId(json, member->controllerId);
  cJSON_AddStringToObject(json, "action", actionText(*member).c_str());
}

void addGroup(cJSON* json, const TableDump& dump, uint32_t id) {
  cJSON_AddNumberToObject(json, "group", id);
  const DumpedGroup* group = groupIn(dump, id);
  if (!group) return;
  addControllerId(json, group->controllerId);
  cJSON* members = cJSON_AddArrayToObject(json, "members");
  for (const auto& [memberId, weight] : group->members) {
    cJSON* member = cJSON_CreateObject();
    addMember(member, dump, memberId);
    cJSON_AddNumberToObject(member, "weight", weight);
    cJSON_AddItemToArray(members, member);
  }
}

void addDirect(cJSON* json, const DumpedTable& table, const DumpedRow& row) {
  if (!table.type) return;
  const auto meter = Lattice::meterOfRow(*table.type, row.value);
  if (meter && !meter->given) cJSON_AddStringToObject(json, "meter", "default");
  if (meter && meter->given) {
    cJSON* object = cJSON_AddObjectToObject(json, "meter");
    addNumber(object, "cir", meter->cir);
    addNumber(object, "cburst", meter->cburst);
    addNumber(object, "pir", meter->pir);
    addNumber(object, "pburst", meter->pburst);
  }
}

void addCount(cJSON* json, const RowCount& count) {
  cJSON* object = cJSON_AddObjectToObject(json, "counter");
  addNumber(object, "packets", count.packets);
  addNumber(object, "bytes", count.bytes);
  if (!count.packetsPerSecond) return;
  cJSON_AddNumberToObject(object, "packetsPerSecond", std::round(*count.packetsPerSecond));
}

}  // namespace

std::string rowLine(const TableDump& dump, const DumpedTable& table, const DumpedRow& row,
                    const std::optional<RowCount>& count) {
  if (table.kind == TableKind::member) return memberLine(dump, profileId(row));
  if (table.kind == TableKind::group) return groupLine(dump, profileId(row));
  std::string line = fmt::format("  {} -> {}", joined(columns(dump, table, row.key, true)),
                                 valueText(dump, table, row));
  if (count) line += countText(*count);
  if (row.entryHandle != 0) line += fmt::format("  [handle {}", row.entryHandle);
  if (row.entryHandle != 0) line += row.state.empty() ? "]" : ", " + row.state + "]";
  return line;
}

std::string rowJson(const TableDump& dump, const DumpedTable& table, const DumpedRow& row,
                    const std::optional<RowCount>& count) {
  const Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "table", table.name.c_str());
  cJSON_AddItemToObject(json.get(), "key",
                        columnsJson(columns(dump, table, row.key, true)).release());
  cJSON_AddItemToObject(json.get(), "value",
                        columnsJson(columns(dump, table, row.value, false)).release());
  if (table.kind == TableKind::member) addMember(json.get(), dump, profileId(row));
  if (table.kind == TableKind::group) addGroup(json.get(), dump, profileId(row));
  if (table.kind == TableKind::indirect) {
    if (const auto target = indirectTarget(table, row)) {
      cJSON* to = cJSON_AddObjectToObject(json.get(), "leadsTo");
      target->isGroup ? addGroup(to, dump, target->id) : addMember(to, dump, target->id);
    }
  }
  addDirect(json.get(), table, row);
  if (count) addCount(json.get(), *count);
  addNumber(json.get(), "entryHandle", row.entryHandle);
  addNumber(json.get(), "sequence", row.sequence);
  if (!row.state.empty()) cJSON_AddStringToObject(json.get(), "state", row.state.c_str());
  return Vela::jsonLine(*json);
}
