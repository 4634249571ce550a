// See GeneratedEntry.h.
#include "tests/e2e/GeneratedEntry.h"

#include <algorithm>

using p4::config::v1::ActionRef;
using p4::config::v1::MatchField;
using p4::config::v1::Table;

namespace {

std::string withoutLeadingZeros(std::string bytes) {
  const size_t first = bytes.find_first_not_of('\0');
  return first == std::string::npos ? std::string(1, '\0') : bytes.substr(first);
}

std::string highest(uint32_t bits, uint32_t without = 0) {
  std::string bytes((bits + 7) / 8, '\0');
  for (uint32_t bit = without; bit < bits; ++bit) {
    char& byte = bytes[bytes.size() - 1 - bit / 8];
    byte = static_cast<char>(static_cast<unsigned char>(byte) | 1u << (bit % 8));
  }
  return bytes;
}

std::string both(std::string a, const std::string& b) {
  for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<char>(a[i] & b[i]);
  return a;
}

bool needsPriority(const Table& table) {
  return std::ranges::any_of(table.match_fields(), [](const MatchField& field) {
    return field.match_type() == MatchField::TERNARY || field.match_type() == MatchField::RANGE ||
           field.match_type() == MatchField::OPTIONAL;
  });
}

}  // namespace

std::string GeneratedEntries::number(uint32_t bits, bool isZeroAllowed) {
  std::string bytes = highest(bits);
  for (char& byte : bytes) byte = static_cast<char>(byte & static_cast<char>(random_()));
  const bool isZero = bytes.find_first_not_of('\0') == std::string::npos;
  if (isZero && !isZeroAllowed) bytes.back() = 1;
  return bytes;
}

std::string GeneratedEntries::obstacle(const Table& table) const {
  if (table.is_const_table()) return "its entries are constant";
  if (table.match_fields().empty()) return "it has no key";
  for (const MatchField& field : table.match_fields()) {
    if (field.match_case() != MatchField::kMatchType) return "a match of the architecture";
  }
  return actionsOf(table).empty() ? "it has no action for entries" : "";
}

std::string GeneratedEntries::name() {
  const uint64_t kind = random_() % 4;
  const size_t bytes = 1 + random_() % (kind == 0 ? 1000 : kind == 1 ? 128 : 32);
  std::string result;
  for (size_t i = 0; i < bytes; ++i) result += static_cast<char>(random_());
  return result;
}

std::string GeneratedEntries::value(const auto& declared) {
  if (declared.bitwidth() == 0) return name();
  return withoutLeadingZeros(number(static_cast<uint32_t>(declared.bitwidth())));
}

// Names match whole.
void GeneratedEntries::fillName(const MatchField& field, p4::v1::FieldMatch* match) {
  switch (field.match_type()) {
    case MatchField::LPM:
      match->mutable_lpm()->set_prefix_len(32);
      return match->mutable_lpm()->set_value(name());
    case MatchField::TERNARY:
      match->mutable_ternary()->set_mask("\xff\xff\xff\xff");
      return match->mutable_ternary()->set_value(name());
    case MatchField::RANGE:
      match->mutable_range()->set_low(name());
      return match->mutable_range()->set_high(match->range().low());
    case MatchField::OPTIONAL:
      return match->mutable_optional()->set_value(name());
    default:
      return match->mutable_exact()->set_value(name());
  }
}

std::vector<uint32_t> GeneratedEntries::actionsOf(const Table& table) const {
  std::vector<uint32_t> ids;
  for (const ActionRef& ref : table.action_refs()) {
    const bool isForEntries =
        ref.scope() == ActionRef::TABLE_AND_DEFAULT || ref.scope() == ActionRef::TABLE_ONLY;
    if (isForEntries) ids.push_back(ref.id());
  }
  return ids;
}

std::vector<uint32_t> GeneratedEntries::defaultActionsOf(const Table& table) const {
  std::vector<uint32_t> ids;
  if (table.const_default_action_id() != 0 || table.implementation_id() != 0) return ids;
  for (const ActionRef& ref : table.action_refs()) {
    const bool isForDefaults =
        ref.scope() == ActionRef::TABLE_AND_DEFAULT || ref.scope() == ActionRef::DEFAULT_ONLY;
    if (isForDefaults) ids.push_back(ref.id());
  }
  return ids;
}

p4::v1::TableEntry GeneratedEntries::defaultEntry(const Table& table, uint32_t actionId) {
  p4::v1::TableEntry entry;
  entry.set_table_id(table.preamble().id());
  entry.set_is_default_action(true);
  *entry.mutable_action()->mutable_action() = action(actionId);
  return entry;
}

void GeneratedEntries::fill(const MatchField& field, p4::v1::FieldMatch* match) {
  const auto bits = static_cast<uint32_t>(field.bitwidth());
  match->set_field_id(field.id());
  if (bits == 0) return fillName(field, match);
  switch (field.match_type()) {
    case MatchField::LPM: {
      const auto length = static_cast<uint32_t>(1 + random_() % bits);
      match->mutable_lpm()->set_prefix_len(static_cast<int32_t>(length));
      match->mutable_lpm()->set_value(
          withoutLeadingZeros(both(number(bits), highest(bits, bits - length))));
      break;
    }
    case MatchField::TERNARY: {
      const std::string mask = number(bits, false);
      match->mutable_ternary()->set_mask(withoutLeadingZeros(mask));
      match->mutable_ternary()->set_value(withoutLeadingZeros(both(number(bits), mask)));
      break;
    }
    case MatchField::RANGE: {
      std::string low = number(bits, false);
      std::string high = number(bits, false);
      if (high < low) std::swap(low, high);
      match->mutable_range()->set_low(withoutLeadingZeros(low));
      match->mutable_range()->set_high(withoutLeadingZeros(high));
      break;
    }
    case MatchField::OPTIONAL:
      match->mutable_optional()->set_value(withoutLeadingZeros(number(bits)));
      break;
    default:
      match->mutable_exact()->set_value(withoutLeadingZeros(number(bits)));
  }
}

p4::v1::Action GeneratedEntries::action(uint32_t actionId) {
  p4::v1::Action action;
  action.set_action_id(actionId);
  for (const auto& param : pipeline_.action(actionId).params()) {
    auto* sent = action.add_params();
    sent->set_param_id(param.id());
    sent->set_value(value(param));
  }
  return action;
}

const p4::config::v1::ActionProfile* GeneratedEntries::profileOf(const Table& table) const {
  for (const auto& profile : pipeline_.p4info().action_profiles()) {
    if (profile.preamble().id() == table.implementation_id()) return &profile;
  }
  return nullptr;
}

p4::v1::TableAction GeneratedEntries::tableAction(const Table& table, uint32_t actionId) {
  p4::v1::TableAction result;
  const auto* profile = profileOf(table);
  if (profile == nullptr) {
    *result.mutable_action() = action(actionId);
  } else if (profile->with_selector()) {
    auto* one = result.mutable_action_profile_action_set()->add_action_profile_actions();
    *one->mutable_action() = action(actionId);
    one->set_weight(1);
  } else {
    result.set_action_profile_member_id(lastMember_);
  }
  return result;
}

std::optional<p4::v1::ActionProfileMember> GeneratedEntries::memberFor(const Table& table,
                                                                       uint32_t actionId) {
  const auto* profile = profileOf(table);
  if (profile == nullptr || profile->with_selector()) return std::nullopt;
  p4::v1::ActionProfileMember member;
  member.set_action_profile_id(profile->preamble().id());
  member.set_member_id(++lastMember_);
  *member.mutable_action() = action(actionId);
  return member;
}

p4::v1::TableEntry GeneratedEntries::entry(const Table& table, uint32_t actionId) {
  p4::v1::TableEntry entry;
  entry.set_table_id(table.preamble().id());
  for (const MatchField& field : table.match_fields()) fill(field, entry.add_match());
  if (needsPriority(table)) entry.set_priority(static_cast<int32_t>(1 + random_() % 1000));
  *entry.mutable_action() = tableAction(table, actionId);
  return entry;
}
