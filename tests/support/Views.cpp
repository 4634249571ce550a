// See Views.h.
#include "tests/support/Views.h"

#include <fmt/format.h>

#include <sstream>
#include <stdexcept>

namespace TestSupport {
namespace {

std::string hostOrder(uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// One field of a PI match key; one that is left out is all don't care.
std::string fieldBytes(const p4::config::v1::MatchField& field, const p4::v1::FieldMatch* match) {
  using Field = p4::config::v1::MatchField;
  const int width = field.bitwidth();
  const auto padded = [width](const std::string& bytes) { return paddedBytes(bytes, width); };
  const p4::v1::FieldMatch& value = match ? *match : p4::v1::FieldMatch::default_instance();
  switch (field.match_type()) {
    case Field::LPM:
      return padded(value.lpm().value()) +
             hostOrder(static_cast<uint32_t>(value.lpm().prefix_len()));
    case Field::TERNARY:
      return padded(value.ternary().value()) + padded(value.ternary().mask());
    case Field::OPTIONAL:
      return padded(value.optional().value());
    case Field::RANGE:
      return padded(value.range().low());
    default:
      return padded(value.exact().value());
  }
}

std::string matchKeyBytes(const p4::config::v1::Table& table, const p4::v1::TableEntry& entry) {
  std::string bytes;
  for (const auto& field : table.match_fields()) {
    const p4::v1::FieldMatch* match = nullptr;
    for (const auto& candidate : entry.match()) {
      if (candidate.field_id() == field.id()) match = &candidate;
    }
    bytes += fieldBytes(field, match);
  }
  return bytes;
}

std::string actionBytes(const p4::config::v1::Action& definition, const p4::v1::Action& action) {
  std::string bytes;
  for (const auto& param : definition.params()) {
    for (const auto& value : action.params()) {
      if (value.param_id() == param.id()) bytes += paddedBytes(value.value(), param.bitwidth());
    }
  }
  return bytes;
}

std::string actionText(const Pipeline& pipeline, const p4::v1::Action& action) {
  return Words::action(action.action_id(),
                       actionBytes(pipeline.action(action.action_id()), action));
}

// Elements with the same action count as one: a picture does not tell in which order they came.
std::string setText(const Pipeline& pipeline, const p4::v1::ActionProfileActionSet& set) {
  std::map<std::string, uint64_t> weights;
  for (const auto& element : set.action_profile_actions()) {
    weights[actionText(pipeline, element.action())] += static_cast<uint64_t>(element.weight());
  }
  return Words::toActionSet(weights);
}

std::string doesText(const Pipeline& pipeline, const p4::v1::TableAction& action) {
  switch (action.type_case()) {
    case p4::v1::TableAction::kActionProfileMemberId:
      return Words::toMember(action.action_profile_member_id());
    case p4::v1::TableAction::kActionProfileGroupId:
      return Words::toGroup(action.action_profile_group_id());
    case p4::v1::TableAction::kActionProfileActionSet:
      return setText(pipeline, action.action_profile_action_set());
    default:
      return actionText(pipeline, action.action());
  }
}

std::string meterText(const p4::v1::TableEntry& entry) {
  const auto number = [](int64_t value) { return static_cast<uint64_t>(value); };
  const auto& config = entry.meter_config();
  return Words::meter({.given = entry.has_meter_config(),
                       .cir = number(config.cir()),
                       .cburst = number(config.cburst()),
                       .pir = number(config.pir()),
                       .pburst = number(config.pburst())});
}

void addEntry(const Pipeline& pipeline, const p4::v1::TableEntry& entry, View& view) {
  const auto& table = pipeline.table(entry.table_id());
  view[Words::entryKey(pipeline.rowTable(entry.table_id()), matchKeyBytes(table, entry),
                       entry.priority())] = doesText(pipeline, entry.action()) + meterText(entry);
}

void addMember(const Pipeline& pipeline, const p4::v1::ActionProfileMember& member, View& view) {
  const std::string& table = pipeline.rowTables().members.at(member.action_profile_id());
  view[Words::memberKey(table, member.member_id())] = actionText(pipeline, member.action());
}

void addGroup(const Pipeline& pipeline, const p4::v1::ActionProfileGroup& group, View& view) {
  std::map<uint32_t, uint64_t> weights;
  for (const auto& member : group.members()) {
    weights[member.member_id()] += static_cast<uint64_t>(member.weight());
  }
  const std::string& table = pipeline.rowTables().groups.at(group.action_profile_id());
  view[Words::groupKey(table, group.group_id())] = Words::shares(weights);
}

template <typename Key>
std::string weightsText(const std::map<Key, uint64_t>& weights) {
  std::string text;
  for (const auto& [key, weight] : weights) text += fmt::format(" {}*{}", weight, key);
  return text;
}

}  // namespace

namespace Words {

std::string hex(std::string_view bytes) {
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

std::string entryKey(std::string_view table, std::string_view matchKey, int64_t priority) {
  return fmt::format("{}|{}|{}", table, hex(matchKey), priority);
}
std::string memberKey(std::string_view memberTable, uint32_t id) {
  return fmt::format("{}|{}", memberTable, id);
}
std::string groupKey(std::string_view groupTable, uint32_t id) {
  return fmt::format("{}|{}", groupTable, id);
}
std::string action(uint32_t actionId, std::string_view data) {
  return fmt::format("{:#x}|{}", actionId, hex(data));
}
std::string toMember(uint32_t id) { return fmt::format("member {}", id); }
std::string toGroup(uint32_t id) { return fmt::format("group {}", id); }
std::string toActionSet(const std::map<std::string, uint64_t>& weights) {
  return "set" + weightsText(weights);
}
std::string shares(const std::map<uint32_t, uint64_t>& weights) {
  return "members" + weightsText(weights);
}
std::string meter(const Lattice::MeterColumns& meter) {
  if (!meter.given) return "";
  return fmt::format(" meter {}/{} {}/{}", meter.cir, meter.cburst, meter.pir, meter.pburst);
}

}  // namespace Words

View viewOf(const Pipeline& pipeline, const std::vector<p4::v1::Entity>& entities) {
  View view;
  for (const auto& entity : entities) {
    if (entity.has_table_entry()) addEntry(pipeline, entity.table_entry(), view);
    if (entity.has_action_profile_member())
      addMember(pipeline, entity.action_profile_member(), view);
    if (entity.has_action_profile_group()) addGroup(pipeline, entity.action_profile_group(), view);
  }
  return view;
}

View viewOfEntries(const Pipeline& pipeline, const std::vector<p4::v1::TableEntry>& entries) {
  View view;
  for (const auto& entry : entries) addEntry(pipeline, entry, view);
  return view;
}

View forwarderView(const ForwarderProcess& forwarder) {
  const CommandResult result = forwarder.ctl({"dump"});
  if (result.exit.code != 0) throw std::runtime_error("forwarder: " + result.error);
  View view;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const size_t arrow = line.find(" -> ");
    if (arrow == std::string::npos) throw std::runtime_error("no row: " + line);
    view[line.substr(0, arrow)] = line.substr(arrow + 4);
  }
  return view;
}

std::string difference(const std::string& leftName, const View& left, const std::string& rightName,
                       const View& right) {
  constexpr size_t shown = 10;
  std::string text;
  size_t count = 0;
  const auto tell = [&](const std::string& name, const std::string& key, const std::string& value) {
    if (++count <= shown) text += fmt::format("only in {}: {} -> {}\n", name, key, value);
  };
  const auto compare = [&](const std::string& name, const View& these, const View& others) {
    for (const auto& [key, value] : these) {
      const auto other = others.find(key);
      if (other == others.end() || other->second != value) tell(name, key, value);
    }
  };
  compare(leftName, left, right);
  compare(rightName, right, left);
  if (count > shown) text += fmt::format("... {} lines in all\n", count);
  return text;
}

}  // namespace TestSupport
