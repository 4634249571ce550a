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

std::string entryKey(const P4InfoLookup& index, const p4::v1::TableEntry& entry) {
  const p4::config::v1::Table* table = index.table(entry.table_id());
  if (table == nullptr) return "";
  if (entry.is_default_action()) return "default entry";
  std::string text;
  for (const auto& match : entry.match()) {
    text += (text.empty() ? "" : " ") + fieldWord(*table, match);
  }
  if (entry.priority() != 0) {
    text += fmt::format("{}priority={}", text.empty() ? "" : " ", entry.priority());
  }
  return text;
}

std::string entryContent(const P4InfoLookup& index, const p4::v1::TableEntry& entry) {
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

std::string groupContent(const p4::v1::ActionProfileGroup& group) {
  std::string text;
  for (const auto& member : group.members()) {
    text += fmt::format("{} {} @{}", text.empty() ? "members" : ",", member.member_id(),
                        member.weight());
  }
  return text.empty() ? "no members" : text;
}

// The table or profile that an entity is in.
std::string placeText(const P4InfoLookup& index, const p4::v1::Entity& entity) {
  const auto named = [](const char* kind, const auto* known, uint32_t id) {
    return fmt::format("{} {}", kind, known ? known->preamble().name() : std::to_string(id));
  };
  if (const p4::v1::TableEntry* entry = entryOf(entity)) {
    return named("table", index.table(entry->table_id()), entry->table_id());
  }
  if (!entity.has_action_profile_member() && !entity.has_action_profile_group()) return "";
  const uint32_t id = entity.has_action_profile_member()
                          ? entity.action_profile_member().action_profile_id()
                          : entity.action_profile_group().action_profile_id();
  return named("action profile", index.actionProfile(id), id);
}

}  // namespace

std::string keyText(const P4InfoLookup& index, const p4::v1::Entity& entity) {
  if (const p4::v1::TableEntry* entry = entryOf(entity)) return entryKey(index, *entry);
  if (entity.has_action_profile_member()) {
    return fmt::format("member {}", entity.action_profile_member().member_id());
  }
  if (entity.has_action_profile_group()) {
    return fmt::format("group {}", entity.action_profile_group().group_id());
  }
  return Vela::plainLine(entity.ShortDebugString(), longestText);
}

std::string contentText(const P4InfoLookup& index, const p4::v1::Entity& entity) {
  if (entity.has_action_profile_member()) {
    return textOf(index, entity.action_profile_member().action());
  }
  if (entity.has_action_profile_group()) return groupContent(entity.action_profile_group());
  const p4::v1::TableEntry* entry = entryOf(entity);
  return entry ? entryContent(index, *entry) : "";
}

std::string updateText(const P4InfoLookup& index, const p4::v1::Update& update) {
  const p4::v1::Entity& entity = update.entity();
  const char* part = entity.has_direct_counter_entry() ? " counter of"
                     : entity.has_direct_meter_entry() ? " meter of"
                                                       : "";
  const std::string place = placeText(index, entity);
  return fmt::format("{}{} {}{}{}", p4::v1::Update::Type_Name(update.type()), part, place,
                     place.empty() ? "" : ": ", keyText(index, entity));
}

}  // namespace Cli
