// Match elements of a P4Runtime table entry to PI match key bytes, and back.
#include "PI/frontend/store/KeyCodec.h"

#include <absl/container/inlined_vector.h>

#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/ChoiceText.h"
#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/NameCodec.h"

namespace pi::fe::proto {

using p4::v1::FieldMatch;
using p4::v1::TableEntry;

namespace {

constexpr size_t kTextLength = 120;

template <typename... Texts>
[[noreturn]] void refuseField(int code, const TablePlan& table, const FieldPlan& field,
                              const Texts&... texts) {
  refuse(code, "table ", table.name, ": field ", field.name, ": ", texts...);
}

void putName(const TablePlan& table, const FieldPlan& field, std::string_view name,
             const Naming& naming, uint8_t* out) {
  putNumber(numberOf(*field.names, name, naming, {"table ", table.name, ": field ", field.name}),
            out);
}

void putValue(const TablePlan& table, const FieldPlan& field, std::string_view value,
              uint8_t* out) {
  if (!fits(value, field.bits)) {
    refuseField(code::outOfRange, table, field, "the value ", hexText(value),
                value.empty() ? " is no number" : " is wider than the field's ",
                value.empty() ? "" : absl::StrCat(field.bits, " bits"), "; the largest is ",
                largestText(field.bits));
  }
  putPadded(value, out, field.bytes);
}

const char* kindText(MatchKind kind) {
  switch (kind) {
    case MatchKind::exact:
      return "exact";
    case MatchKind::lpm:
      return "LPM";
    case MatchKind::ternary:
      return "ternary";
    case MatchKind::range:
      return "range";
    case MatchKind::optional:
      return "optional";
    case MatchKind::other:
      break;
  }
  return "other";
}

// A match of a kind that is not supported is refused in its own words.
bool hasForm(MatchKind kind, const MatchView& match) {
  using Form = MatchView::Form;
  switch (kind) {
    case MatchKind::exact:
      return match.form == Form::exact;
    case MatchKind::lpm:
      return match.form == Form::lpm;
    case MatchKind::ternary:
      return match.form == Form::ternary;
    case MatchKind::range:
      return match.form == Form::range;
    case MatchKind::optional:
      return match.form == Form::optional;
    case MatchKind::other:
      break;
  }
  return true;
}

void requireForm(const TablePlan& table, const FieldPlan& field, const MatchView& match) {
  if (hasForm(field.kind, match)) return;
  refuseField(code::invalidArgument, table, field, "the match must be of the kind ",
              kindText(field.kind));
}

void requireWhole(const TablePlan& table, const FieldPlan& field, bool isWhole, const char* form) {
  if (isWhole) return;
  refuseField(code::unimplemented, table, field, "the values are names, which match whole: give ",
              form, ", or leave the field out to match anything");
}

bool allZero(const uint8_t* data, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    if (data[i] != 0) return false;
  }
  return true;
}

// Whether the low `bits` bits of the value are all zero.
bool lowBitsZero(const uint8_t* value, size_t bytes, uint32_t bits) {
  const size_t whole = bits / 8;
  if (!allZero(value + bytes - whole, whole)) return false;
  const uint32_t rest = bits % 8;
  return rest == 0 || (value[bytes - whole - 1] & ((1U << rest) - 1)) == 0;
}

void putLpm(const TablePlan& table, const FieldPlan& field, const MatchView& lpm, uint8_t* out) {
  putValue(table, field, lpm.value, out);
  if (lpm.prefixLength <= 0 || static_cast<uint32_t>(lpm.prefixLength) > field.bits) {
    refuseField(code::invalidArgument, table, field, "the prefix length ", lpm.prefixLength,
                " is not from 1 to ", field.bits, "; leave the field out to match anything");
  }
  const auto length = static_cast<uint32_t>(lpm.prefixLength);
  if (!lowBitsZero(out, field.bytes, field.bits - length)) {
    refuseField(code::invalidArgument, table, field, "the value ", hexText(lpm.value),
                " has bits below the prefix length ", length, "; clear them");
  }
  std::memcpy(out + field.bytes, &length, sizeof(length));
}

void putTernary(const TablePlan& table, const FieldPlan& field, const MatchView& ternary,
                uint8_t* out) {
  uint8_t* mask = out + field.bytes;
  putValue(table, field, ternary.value, out);
  putValue(table, field, ternary.second, mask);
  if (allZero(mask, field.bytes)) {
    refuseField(code::invalidArgument, table, field,
                "the mask is 0; leave the field out to match anything");
  }
  for (size_t i = 0; i < field.bytes; ++i) {
    if ((out[i] & ~mask[i]) == 0) continue;
    refuseField(code::invalidArgument, table, field, "the value ", hexText(ternary.value),
                " has bits outside the mask ", hexText(ternary.second), "; clear them");
  }
}

std::string highestValue(const FieldPlan& field) {
  std::string highest(field.bytes, '\xff');
  if (field.bits % 8 != 0) highest[0] = static_cast<char>((1U << (field.bits % 8)) - 1);
  return highest;
}

bool isFullRange(const FieldPlan& field, const uint8_t* low, std::string_view high) {
  return allZero(low, field.bytes) && high == highestValue(field);
}

// The high end in a key.
std::string_view highOf(const FieldPlan& field, const uint8_t* at) {
  const uint8_t* high = field.takesAll ? at + field.bytes : at;
  return {reinterpret_cast<const char*>(high), field.bytes};
}

uint32_t prefixLength(const FieldPlan& field, const uint8_t* at) {
  uint32_t length = 0;
  std::memcpy(&length, at + field.bytes, sizeof(length));
  return length;
}

void putRange(const TablePlan& table, const FieldPlan& field, const MatchView& range,
              uint8_t* out) {
  std::string high(field.bytes, '\0');
  putValue(table, field, range.value, out);
  putValue(table, field, range.second, reinterpret_cast<uint8_t*>(high.data()));
  const int order = std::memcmp(out, high.data(), field.bytes);
  if (order > 0) {
    refuseField(code::invalidArgument, table, field,
                "the range ends before it begins: ", hexText(range.value), " to ",
                hexText(range.second));
  }
  if (isFullRange(field, out, high)) {
    refuseField(code::invalidArgument, table, field,
                "the range holds every value; leave the field out to match anything");
  }
  if (field.takesAll) {
    std::memcpy(out + field.bytes, high.data(), field.bytes);
  } else if (order != 0) {
    refuseField(code::unimplemented, table, field,
                "ranges of more than one value are not supported");
  }
}

// A name counts as 32 bits. A match takes all of them, or the field is left out.
void putWholeName(const TablePlan& table, const FieldPlan& field, const MatchView& match,
                  const Naming& naming, uint8_t* out) {
  const std::string whole(field.bytes, '\xff');
  if (field.kind == MatchKind::lpm) {
    const bool isWhole = match.prefixLength == static_cast<int32_t>(field.bits);
    requireWhole(table, field, isWhole, "a prefix length of 32");
    putName(table, field, match.value, naming, out);
    std::memcpy(out + field.bytes, &field.bits, sizeof(field.bits));
  } else if (field.kind == MatchKind::ternary) {
    requireWhole(table, field, match.second == whole, "the mask ff ff ff ff");
    putName(table, field, match.value, naming, out);
    whole.copy(reinterpret_cast<char*>(out) + field.bytes, field.bytes);
  } else {
    const bool isWhole = match.value == match.second;
    requireWhole(table, field, isWhole, "a range whose ends are the same");
    putName(table, field, match.value, naming, out);
    if (field.takesAll) std::memcpy(out + field.bytes, out, field.bytes);
  }
}

void putNamed(const TablePlan& table, const FieldPlan& field, const MatchView& match,
              const Naming& naming, uint8_t* out) {
  if (field.kind == MatchKind::exact) {
    return putName(table, field, match.value, naming, out);
  }
  if (field.kind != MatchKind::optional) return putWholeName(table, field, match, naming, out);
  putName(table, field, match.value, naming, out);
  if (field.takesAll) out[field.bytes] = 1;
}

void putField(const TablePlan& table, const FieldPlan& field, const MatchView& match,
              const Naming& naming, uint8_t* key) {
  uint8_t* out = key + field.offset;
  requireForm(table, field, match);
  if (field.names != nullptr) return putNamed(table, field, match, naming, out);
  switch (field.kind) {
    case MatchKind::exact:
      return putValue(table, field, match.value, out);
    case MatchKind::lpm:
      return putLpm(table, field, match, out);
    case MatchKind::ternary:
      return putTernary(table, field, match, out);
    case MatchKind::range:
      return putRange(table, field, match, out);
    case MatchKind::optional:
      putValue(table, field, match.value, out);
      if (field.takesAll) out[field.bytes] = 1;
      return;
    case MatchKind::other:
      refuseField(code::unimplemented, table, field, "this kind of match is not supported");
  }
}

// Controllers mostly send the elements in P4Info order, so the i-th is tried first.
size_t fieldIndex(const TablePlan& table, uint32_t fieldId, size_t hint) {
  if (hint < table.fields.size() && table.fields[hint].id == fieldId) return hint;
  for (size_t i = 0; i < table.fields.size(); ++i) {
    if (table.fields[i].id == fieldId) return i;
  }
  refuse(code::invalidArgument, "table ", table.name, " has no field with the id ", fieldId,
         "; it has ", choices(table.fields));
}

// The bytes of a don't-care are zero: value and prefix length, value and mask, or value and
// presence. A range that matches anything has both ends.
void putAbsent(const TablePlan& table, const FieldPlan& field, uint8_t* key) {
  if (field.kind == MatchKind::exact) {
    refuseField(code::invalidArgument, table, field, "an exact match must be given");
  }
  const bool isOpen = field.kind != MatchKind::range && field.kind != MatchKind::optional;
  if (!isOpen && !field.takesAll) {
    refuseField(code::unimplemented, table, field, kindText(field.kind),
                " fields that match anything are not supported; give a value");
  }
  uint8_t* out = key + field.offset;
  std::memset(out, 0, field.keyBytes());
  if (field.kind == MatchKind::range)
    highestValue(field).copy(reinterpret_cast<char*>(out) + field.bytes, field.bytes);
}

// Whether the field of a key that is in use matches anything, and is not sent.
bool matchesAnything(const FieldPlan& field, const uint8_t* at) {
  switch (field.kind) {
    case MatchKind::lpm:
      return prefixLength(field, at) == 0;
    case MatchKind::ternary:
      return allZero(at + field.bytes, field.bytes);
    case MatchKind::range:
      return field.takesAll && isFullRange(field, at, highOf(field, at));
    case MatchKind::optional:
      return field.takesAll && at[field.bytes] == 0;
    default:
      return false;
  }
}

std::string valueText(const uint8_t* at, const FieldPlan& field) {
  if (field.names != nullptr) return quotedName(field.names->name(numberAt(at)));
  return hexText(shortest(at, field.bytes));
}

// Empty for a field that matches anything.
std::string fieldText(const FieldPlan& field, const uint8_t* key) {
  const uint8_t* at = key + field.offset;
  if (matchesAnything(field, at)) return "";
  const std::string value = valueText(at, field);
  if (field.names != nullptr) return absl::StrCat(field.name, " ", value);
  if (field.kind == MatchKind::lpm) {
    const uint32_t length = prefixLength(field, at);
    if (field.bits != 32) return absl::StrCat(field.name, " ", value, "/", length);
    return absl::StrCat(field.name, " ", at[0], ".", at[1], ".", at[2], ".", at[3], "/", length);
  }
  if (field.kind == MatchKind::ternary) {
    return absl::StrCat(field.name, " ", value, "&", valueText(at + field.bytes, field));
  }
  if (field.kind == MatchKind::range && field.takesAll) {
    return absl::StrCat(field.name, " ", value, "..", valueText(at + field.bytes, field));
  }
  return absl::StrCat(field.name, " ", value);
}

void nameMatchIs(const FieldPlan& field, const uint8_t* at, FieldMatch* match) {
  const std::string name = field.names->name(numberAt(at));
  switch (field.kind) {
    case MatchKind::lpm:
      match->mutable_lpm()->set_prefix_len(static_cast<int32_t>(field.bits));
      return match->mutable_lpm()->set_value(name);
    case MatchKind::ternary:
      match->mutable_ternary()->set_mask(std::string(field.bytes, '\xff'));
      return match->mutable_ternary()->set_value(name);
    case MatchKind::range:
      match->mutable_range()->set_low(name);
      return match->mutable_range()->set_high(name);
    case MatchKind::optional:
      return match->mutable_optional()->set_value(name);
    default:
      return match->mutable_exact()->set_value(name);
  }
}

void decodeField(const FieldPlan& field, const uint8_t* at, TableEntry* entry) {
  if (matchesAnything(field, at)) return;
  FieldMatch* match = entry->add_match();
  match->set_field_id(field.id);
  if (field.names != nullptr) return nameMatchIs(field, at, match);
  switch (field.kind) {
    case MatchKind::lpm:
      match->mutable_lpm()->set_prefix_len(static_cast<int32_t>(prefixLength(field, at)));
      return setAnswer(at, field.bytes, match->mutable_lpm()->mutable_value());
    case MatchKind::ternary:
      setAnswer(at, field.bytes, match->mutable_ternary()->mutable_value());
      return setAnswer(at + field.bytes, field.bytes, match->mutable_ternary()->mutable_mask());
    case MatchKind::range:
      setAnswer(at, field.bytes, match->mutable_range()->mutable_low());
      return setAnswer(field.takesAll ? at + field.bytes : at, field.bytes,
                       match->mutable_range()->mutable_high());
    case MatchKind::optional:
      return setAnswer(at, field.bytes, match->mutable_optional()->mutable_value());
    default:
      return setAnswer(at, field.bytes, match->mutable_exact()->mutable_value());
  }
}

// Takes the match elements of one entry, in any order.
class KeyEncoder {
 public:
  KeyEncoder(const TablePlan& table, uint8_t* key, const Naming& naming)
      : table_(table), key_(key), naming_(naming), seen_(table.fields.size(), false) {}

  void add(const MatchView& match) {
    const size_t index = fieldIndex(table_, match.fieldId, added_++);
    const FieldPlan& field = table_.fields[index];
    if (seen_[index]) refuseField(code::invalidArgument, table_, field, "the match is given twice");
    seen_[index] = true;
    putField(table_, field, match, naming_, key_);
  }

  void end() {
    if (added_ == table_.fields.size()) return;
    for (size_t i = 0; i < table_.fields.size(); ++i) {
      if (!seen_[i]) putAbsent(table_, table_.fields[i], key_);
    }
  }

 private:
  const TablePlan& table_;
  uint8_t* const key_;
  const Naming& naming_;
  absl::InlinedVector<bool, 32> seen_;
  size_t added_ = 0;
};

}  // namespace

void encodeKey(const TablePlan& table, const TableEntry& entry, uint8_t* key,
               const Naming& naming) {
  KeyEncoder encoder(table, key, naming);
  for (const FieldMatch& match : entry.match()) encoder.add(viewOf(match));
  encoder.end();
}

void encodeKey(const TablePlan& table, std::span<const MatchView> matches, uint8_t* key,
               const Naming& naming) {
  KeyEncoder encoder(table, key, naming);
  for (const MatchView& match : matches) encoder.add(match);
  encoder.end();
}

uint32_t checkedPriority(const TablePlan& table, int32_t priority) {
  if (table.needsPriority && priority <= 0) {
    refuse(code::invalidArgument, "table ", table.name, ": the priority is ", priority,
           "; tables with ternary, range or optional fields need one above 0");
  }
  if (!table.needsPriority && priority != 0) {
    refuse(code::invalidArgument, "table ", table.name, ": the priority is ", priority,
           "; tables with only exact and LPM fields have none");
  }
  return static_cast<uint32_t>(priority);
}

void decodeKey(const TablePlan& table, const uint8_t* key, TableEntry* entry) {
  for (const FieldPlan& field : table.fields) decodeField(field, key + field.offset, entry);
}

std::string keyText(const TablePlan& table, const uint8_t* key, uint32_t priority) {
  if (table.entity != nullptr) return entityKeyText(table, key);
  if (table.isDefaultEntry) return absl::StrCat("table ", table.name, ": the default entry");
  std::string text = absl::StrCat("table ", table.name, ":");
  const size_t empty = text.size();
  for (const FieldPlan& field : table.fields) {
    const std::string one = fieldText(field, key);
    if (!one.empty()) absl::StrAppend(&text, text.size() == empty ? " " : ", ", one);
    if (text.size() > kTextLength) {
      text.resize(kTextLength);
      text += "...";
      break;
    }
  }
  if (text.size() == empty) text += " any packet";
  if (priority != 0) absl::StrAppend(&text, ", priority ", priority);
  return text;
}

}  // namespace pi::fe::proto
