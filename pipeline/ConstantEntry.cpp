// Checking and encoding of constant entries.
#include "pipeline/ConstantEntry.h"

#include <charconv>
#include <cstring>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/TableLayout.h"
#include "pipeline/ValueText.h"

namespace Pipeline {
namespace {

using p4::config::v1::ActionRef;
using p4::config::v1::MatchField;
using Form = MatchValue::Form;

uint32_t prefixLengthOf(std::string_view text, uint32_t bits) {
  uint32_t length = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size() || text.empty() || length > bits) {
    throw PipelineError("prefix length " + quoted(text) + " is no number from 0 to " +
                        std::to_string(bits));
  }
  return length;
}

const TableLayout& layoutOf(const p4::config::v1::Table& table, const PipelineLayout& layout) {
  const TableLayout* found = layout.table({TableKind::match, table.preamble().id()});
  if (found == nullptr) throw PipelineError("the table cannot be programmed");
  return *found;
}

void checkAction(const EntryDraft& draft, const TableLayout& layout) {
  const std::string what = "action " + quoted(draft.action->preamble().name());
  const uint32_t id = draft.action->preamble().id();
  const ActionRef* ref = nullptr;
  for (const ActionRef& candidate : draft.table->action_refs()) {
    if (candidate.id() == id) ref = &candidate;
  }
  if (ref == nullptr) throw PipelineError(what + " is not one of the table's");
  if (ref->scope() == ActionRef::DEFAULT_ONLY || ref->scope() == ActionRef::GROUP_ACTION)
    throw PipelineError(what + " is not for entries of the table");
  for (const ActionShape& shape : layout.actions) {
    if (shape.id == id) return;
  }
  throw PipelineError(what + " cannot be programmed");
}

void checkPriority(const EntryDraft& draft) {
  bool needed = false;
  for (const MatchField& field : draft.table->match_fields()) {
    needed |= field.match_type() == MatchField::TERNARY ||
              field.match_type() == MatchField::RANGE || field.match_type() == MatchField::OPTIONAL;
  }
  if (needed && draft.priority == 0)
    throw PipelineError(
        "it needs a \"priority\" above 0: the table has a ternary, range or"
        " optional field");
  if (!needed && draft.priority != 0)
    throw PipelineError("its priority must be 0: the table has exact and LPM fields only");
}

std::string exactKey(const MatchValue& value) {
  if (value.form != Form::exact) throw PipelineError("expected one value: the field is exact");
  return value.value;
}

std::string lpmKey(const std::optional<MatchValue>& value, uint32_t bits) {
  uint32_t length = 0;
  std::string bytes = prefixMask(0, bits);
  if (value) {
    if (value->form != Form::exact && value->form != Form::lpm)
      throw PipelineError("expected a prefix such as 10.0.0.0/8");
    length = value->form == Form::lpm ? value->prefixLength : bits;
    bytes = value->value;
  }
  if (!isSubset(bytes, prefixMask(length, bits))) {
    throw PipelineError(valueText(bytes, "IpGenPrefix") + '/' + std::to_string(length) +
                        " has bits set below the prefix");
  }
  std::string lengthBytes(sizeof length, '\0');
  std::memcpy(lengthBytes.data(), &length, sizeof length);
  return bytes + lengthBytes;
}

std::string ternaryKey(const std::optional<MatchValue>& value, uint32_t bits) {
  if (!value) return prefixMask(0, bits) + prefixMask(0, bits);
  std::string mask = fullMask(bits);
  if (value->form == Form::range) throw PipelineError("expected value&&&mask, not a range");
  if (value->form == Form::ternary) mask = value->maskOrHigh;
  if (value->form == Form::lpm) mask = prefixMask(value->prefixLength, bits);
  if (!isSubset(value->value, mask)) throw PipelineError("its value has bits outside its mask");
  return value->value + mask;
}

std::string oneValueRangeKey(const std::optional<MatchValue>& value) {
  const bool one = value && (value->form == Form::exact ||
                             (value->form == Form::range && value->value == value->maskOrHigh));
  if (!one) throw PipelineError("the agent programs ranges of one value only");
  return value->value;
}

std::string rangeKey(const std::optional<MatchValue>& value, uint32_t bits) {
  if (!value) return prefixMask(0, bits) + fullMask(bits);
  if (value->form == Form::exact) return value->value + value->value;
  if (value->form != Form::range) throw PipelineError("expected a range such as 1..7");
  if (value->value > value->maskOrHigh) throw PipelineError("its range ends before it begins");
  return value->value + value->maskOrHigh;
}

std::string optionalKey(const std::optional<MatchValue>& value, uint32_t bits) {
  if (!value) return prefixMask(0, bits) + '\0';
  return exactKey(*value) + '\1';
}

// `slot` is the field's first.
std::string fieldKey(const Slot& slot, const MatchField& field,
                     const std::optional<MatchValue>& value) {
  switch (slot.role) {
    case SlotRole::prefix:
      return lpmKey(value, slot.bits);
    case SlotRole::value:
      return ternaryKey(value, slot.bits);
    case SlotRole::range:
      return oneValueRangeKey(value);
    case SlotRole::low:
      return rangeKey(value, slot.bits);
    case SlotRole::optional:
      return optionalKey(value, slot.bits);
    default:
      break;
  }
  if (value) return exactKey(*value);
  throw PipelineError(field.match_type() == MatchField::OPTIONAL
                          ? "the agent cannot leave an optional field out; give a value"
                          : "missing; an exact field needs a value");
}

std::string matchKey(const EntryDraft& draft, const TableLayout& layout) {
  std::string key;
  for (const Slot& slot : layout.slots) {
    if (!isFirst(slot.role)) continue;
    const MatchField& field = draft.table->match_fields(static_cast<int>(slot.field));
    try {
      key += fieldKey(slot, field, draft.match[slot.field]);
    } catch (const PipelineError& e) {
      throw PipelineError("match field " + quoted(field.name()) + ": " + e.what());
    }
  }
  return key;
}

std::string actionData(const EntryDraft& draft) {
  std::string data;
  for (int i = 0; i < draft.action->params_size(); ++i) {
    const auto& value = draft.params[static_cast<size_t>(i)];
    if (!value) {
      throw PipelineError("action " + quoted(draft.action->preamble().name()) +
                          " needs its parameter " + quoted(draft.action->params(i).name()));
    }
    data += *value;
  }
  return data;
}

}  // namespace

void checkTakesActions(const p4::config::v1::Table& table) {
  if (table.implementation_id() == 0) return;
  throw PipelineError(
      "the table takes members, groups or action sets of an action profile, and constant entries"
      " hold actions only; let a controller insert it");
}

MatchValue matchValue(const std::string& text, uint32_t bits) {
  const auto split = [&](const char* separator, Form form) -> std::optional<MatchValue> {
    const size_t at = text.find(separator);
    if (at == std::string::npos) return std::nullopt;
    const std::string right = text.substr(at + std::strlen(separator));
    MatchValue value{form, valueBytes(text.substr(0, at), bits), "", 0};
    if (form == Form::lpm) {
      value.prefixLength = prefixLengthOf(right, bits);
    } else {
      value.maskOrHigh = valueBytes(right, bits);
    }
    return value;
  };
  if (auto ternary = split("&&&", Form::ternary)) return *ternary;
  if (auto prefix = split("/", Form::lpm)) return *prefix;
  if (auto range = split("..", Form::range)) return *range;
  return {Form::exact, valueBytes(text, bits), "", 0};
}

ConstantEntry encodeEntry(const EntryDraft& draft, const PipelineLayout& layout) {
  const TableLayout& table = layoutOf(*draft.table, layout);
  checkAction(draft, table);
  checkPriority(draft);
  return {.tableId = table.id,
          .key = matchKey(draft, table),
          .priority = draft.priority,
          .actionId = draft.action->preamble().id(),
          .actionParams = actionData(draft)};
}

}  // namespace Pipeline
