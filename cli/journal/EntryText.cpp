#include "cli/journal/EntryText.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/journal/EntryPattern.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/ColumnType.h"
#include "pipeline/Extensions.h"
#include "pipeline/Finding.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ValueText.h"
#include "platform/vela/PlainText.h"

namespace Cli {

using namespace Pipeline;
using p4::config::v1::MatchField;

namespace {

constexpr size_t longestText = 200;

std::string hex(std::string_view bytes) { return "0x" + hexText(bytes); }

// Strings of translated types in quotes.
std::string stringText(const std::string& bytes) {
  return '"' + Vela::plainLine(bytes, longestText) + '"';
}

std::string typeOf(const MatchField& field) {
  const bool isPrefix = field.match_type() == MatchField::LPM;
  return isPrefix ? prefixColumn(field, {}).type : keyColumn(field, {}).type;
}

std::string fieldText(const MatchField& field, const p4::v1::FieldMatch& match) {
  const FieldValue value = fieldValue(field, match);
  if (value.mask.empty()) return stringText(value.value);
  const std::string type = typeOf(field);
  const auto bits = static_cast<uint32_t>(field.bitwidth());
  const std::string first = valueText(value.value, type);
  if (value.isRange) return first + ".." + valueText(value.mask, type);
  if (match.has_lpm()) return fmt::format("{}/{}", first, match.lpm().prefix_len());
  return value.mask == fullMask(bits) ? first : first + "&&&" + hex(value.mask);
}

// What a switch refuses is shown all the same.
std::string fieldWord(const p4::config::v1::Table& table, const p4::v1::FieldMatch& match) {
  const auto field = std::ranges::find(table.match_fields(), match.field_id(),
                                       [](const auto& one) { return one.id(); });
  if (field == table.match_fields().end()) return fmt::format("field {}=?", match.field_id());
  try {
    return field->name() + '=' + fieldText(*field, match);
  } catch (const PipelineError&) {
    return field->name() + '=' +
           hex(match.exact().value() + match.lpm().value() + match.ternary().value() +
               match.optional().value());
  }
}

std::string paramText(const p4::config::v1::Action_Param& param, const std::string& bytes) {
  if (param.bitwidth() == 0) return stringText(bytes);
  try {
    const auto bits = static_cast<uint32_t>(param.bitwidth());
    return valueText(canonicalValue(bytes, bits), parameterColumn(param, {}).type);
  } catch (const PipelineError&) {
    return hex(bytes);
  }
}

std::string textOf(const P4InfoLookup& index, const p4::v1::Action& action) {
  const p4::config::v1::Action* known = index.action(action.action_id());
  if (known == nullptr) return fmt::format("action {}", action.action_id());
  std::string text = known->preamble().name();
  for (const auto& given : action.params()) {
    const auto param = std::ranges::find(known->params(), given.param_id(),
                                         [](const auto& one) { return one.id(); });
    text += param == known->params().end()
                ? fmt::format(" parameter {}={}", given.param_id(), hex(given.value()))
                : fmt::format(" {}={}", param->name(), paramText(*param, given.value()));
  }
  return text;
}

std::string textOf(const P4InfoLookup& index, const p4::v1::ActionProfileActionSet& set) {
  std::string text;
  for (const auto& one : set.action_profile_actions()) {
    text += fmt::format("{}{} @{}", text.empty() ? "" : ", ", textOf(index, one.action()),
                        one.weight());
  }
  return text.empty() ? "an empty set" : text;
}

std::string tableName(const P4InfoLookup& index, uint32_t id) {
  const auto* table = index.table(id);
  return table ? table->preamble().name() : std::to_string(id);
}

std::string entryWords(const P4InfoLookup& index, const p4::v1::TableEntry& entry) {
  const auto* table = index.table(entry.table_id());
  return fmt::format("table {}: {}", tableName(index, entry.table_id()),
                     table ? keyText(*table, entry) : "");
}

std::string entityText(const P4InfoLookup& index, const p4::v1::Entity& entity) {
  using p4::v1::Entity;
  const auto profile = [&](uint32_t id) {
    const auto* known = index.actionProfile(id);
    return known ? known->preamble().name() : std::to_string(id);
  };
  switch (entity.entity_case()) {
    case Entity::kTableEntry:
      return entryWords(index, entity.table_entry());
    case Entity::kDirectCounterEntry:
      return "counter of " + entryWords(index, entity.direct_counter_entry().table_entry());
    case Entity::kDirectMeterEntry:
      return "meter of " + entryWords(index, entity.direct_meter_entry().table_entry());
    case Entity::kActionProfileMember:
      return fmt::format("{}: member {}",
                         profile(entity.action_profile_member().action_profile_id()),
                         entity.action_profile_member().member_id());
    case Entity::kActionProfileGroup:
      return fmt::format("{}: group {}", profile(entity.action_profile_group().action_profile_id()),
                         entity.action_profile_group().group_id());
    default:
      return Vela::plainLine(entity.ShortDebugString(), longestText);
  }
}

}  // namespace

std::string keyText(const p4::config::v1::Table& table, const p4::v1::TableEntry& entry) {
  if (entry.is_default_action()) return "default entry";
  std::string text;
  for (const auto& match : entry.match()) {
    text += (text.empty() ? "" : " ") + fieldWord(table, match);
  }
  if (entry.priority() != 0) {
    text += fmt::format("{}priority={}", text.empty() ? "" : " ", entry.priority());
  }
  return text;
}

std::string actionText(const P4InfoLookup& index, const p4::v1::TableEntry& entry) {
  const p4::v1::TableAction& action = entry.action();
  switch (action.type_case()) {
    case p4::v1::TableAction::kAction:
      return textOf(index, action.action());
    case p4::v1::TableAction::kActionProfileMemberId:
      return fmt::format("member {}", action.action_profile_member_id());
    case p4::v1::TableAction::kActionProfileGroupId:
      return fmt::format("group {}", action.action_profile_group_id());
    case p4::v1::TableAction::kActionProfileActionSet:
      return textOf(index, action.action_profile_action_set());
    default:
      return "";
  }
}

std::string updateText(const P4InfoLookup& index, const p4::v1::Update& update) {
  const std::string type = p4::v1::Update::Type_IsValid(update.type())
                               ? p4::v1::Update::Type_Name(update.type())
                               : "update";
  return type + ' ' + entityText(index, update.entity());
}

}  // namespace Cli
