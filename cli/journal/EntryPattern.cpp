#include "cli/journal/EntryPattern.h"

#include <algorithm>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/ColumnType.h"
#include "pipeline/ConstantEntry.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ValueText.h"

namespace Cli {

using namespace Pipeline;
using p4::config::v1::MatchField;

namespace {

uint32_t widthOf(const MatchField& field) {
  return field.bitwidth() > 0 ? static_cast<uint32_t>(field.bitwidth()) : 0;
}

bool isString(const MatchField& field) { return field.bitwidth() == 0; }

FieldValue wholeValue(std::string value, uint32_t bits) {
  return {std::move(value), fullMask(bits), false};
}

FieldValue valueOfText(const MatchField& field, const std::string& text) {
  if (isString(field)) return {text, "", false};
  const uint32_t bits = widthOf(field);
  MatchValue value = matchValue(text, bits);
  switch (value.form) {
    case MatchValue::Form::lpm:
      return {std::move(value.value), prefixMask(value.prefixLength, bits), false};
    case MatchValue::Form::ternary:
      return {std::move(value.value), std::move(value.maskOrHigh), false};
    case MatchValue::Form::range:
      return {std::move(value.value), std::move(value.maskOrHigh), true};
    case MatchValue::Form::exact:
      break;
  }
  if (field.match_type() == MatchField::RANGE) return {value.value, value.value, true};
  return wholeValue(std::move(value.value), bits);
}

// Whether every value matches: entries leave such a field out.
bool isAny(const MatchField& field, const FieldValue& value) {
  switch (field.match_type()) {
    case MatchField::LPM:
    case MatchField::TERNARY:
      return isZero(value.mask);
    case MatchField::RANGE:
      return value.isRange && isZero(value.value) && value.mask == fullMask(widthOf(field));
    default:
      return false;
  }
}

// Without the bits that the mask leaves out, as entries have it.
FieldValue masked(FieldValue value) {
  if (value.isRange) return value;
  for (size_t i = 0; i < value.mask.size(); ++i) {
    value.value[i] = static_cast<char>(value.value[i] & value.mask[i]);
  }
  return value;
}

}  // namespace

const p4::v1::TableEntry* entryOf(const p4::v1::Entity& entity) {
  switch (entity.entity_case()) {
    case p4::v1::Entity::kTableEntry:
      return &entity.table_entry();
    case p4::v1::Entity::kDirectCounterEntry:
      return &entity.direct_counter_entry().table_entry();
    case p4::v1::Entity::kDirectMeterEntry:
      return &entity.direct_meter_entry().table_entry();
    default:
      return nullptr;
  }
}

FieldValue fieldValue(const MatchField& field, const p4::v1::FieldMatch& match) {
  const uint32_t bits = widthOf(field);
  const auto number = [bits](const std::string& bytes) { return canonicalValue(bytes, bits); };
  switch (match.field_match_type_case()) {
    case p4::v1::FieldMatch::kExact:
      if (isString(field)) return {match.exact().value(), "", false};
      return wholeValue(number(match.exact().value()), bits);
    case p4::v1::FieldMatch::kOptional:
      if (isString(field)) return {match.optional().value(), "", false};
      return wholeValue(number(match.optional().value()), bits);
    case p4::v1::FieldMatch::kLpm: {
      const auto length = static_cast<uint32_t>(std::max(0, match.lpm().prefix_len()));
      return {number(match.lpm().value()), prefixMask(std::min(length, bits), bits), false};
    }
    case p4::v1::FieldMatch::kTernary:
      return {number(match.ternary().value()), number(match.ternary().mask()), false};
    case p4::v1::FieldMatch::kRange:
      return {number(match.range().low()), number(match.range().high()), true};
    default:
      throw PipelineError("it has no value of a known match kind");
  }
}

EntryPattern::EntryPattern(const p4::config::v1::Table& table,
                           const std::vector<std::string>& words)
    : table_(table) {
  for (const std::string& word : words) add(word);
}

void EntryPattern::add(const std::string& word) {
  const size_t at = word.find('=');
  if (at == std::string::npos) {
    throw PipelineError(quoted(word) + " is no FIELD=VALUE");
  }
  std::vector<std::string> names;
  for (const MatchField& field : table_.match_fields()) names.push_back(field.name());
  const size_t i = indexNamed("match field", word.substr(0, at), names, {});
  const MatchField& field = table_.match_fields(static_cast<int>(i));
  const std::string text = word.substr(at + 1);
  Wanted wanted{&field, std::nullopt};
  try {
    if (text != "*") wanted.value = masked(valueOfText(field, text));
  } catch (const PipelineError& e) {
    throw PipelineError("match field " + quoted(field.name()) + ": " + e.what());
  }
  if (wanted.value && isAny(field, *wanted.value)) wanted.value.reset();
  if (wanted.value) noteNeedle(wanted.value->value);
  fields_.push_back(std::move(wanted));
}

// Callers may send numbers with or without leading zeros.
void EntryPattern::noteNeedle(std::string_view value) {
  const size_t first = value.find_first_not_of('\0');
  if (first == std::string_view::npos) return;
  if (value.size() - first > needle_.size()) needle_ = value.substr(first);
}

bool EntryPattern::matches(const p4::v1::Entity& entity) const {
  const p4::v1::TableEntry* entry = entryOf(entity);
  return entry != nullptr && matches(*entry);
}

bool EntryPattern::matches(const p4::v1::TableEntry& entry) const {
  if (entry.table_id() != table_.preamble().id()) return false;
  if (isDefault_ && !entry.is_default_action()) return false;
  if (entry.is_default_action() && !mayBeDefault()) return false;
  if (priority_ && entry.priority() != *priority_) return false;
  return std::ranges::all_of(fields_, [&](const Wanted& wanted) { return matches(wanted, entry); });
}

bool EntryPattern::matches(const Wanted& wanted, const p4::v1::TableEntry& entry) const {
  const auto match = std::ranges::find(entry.match(), wanted.field->id(),
                                       [](const auto& one) { return one.field_id(); });
  if (match == entry.match().end()) return !wanted.value;
  if (!wanted.value) return false;
  try {
    return fieldValue(*wanted.field, *match) == *wanted.value;
  } catch (const PipelineError&) {
    return false;  // the switch has refused it
  }
}

}  // namespace Cli
