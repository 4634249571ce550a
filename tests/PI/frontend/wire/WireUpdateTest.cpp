// Updates that are read straight from their bytes: they mean the same as the parsed message, or are
// left to Protocol Buffers.
#include "PI/frontend/wire/WireUpdate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/PI/frontend/check/UpdateCases.h"

namespace pi::fe::proto {
namespace {

using p4::v1::FieldMatch;
using p4::v1::TableEntry;
using p4::v1::Update;
using Random = std::mt19937;

uint32_t below(Random& random, uint32_t end) { return static_cast<uint32_t>(random() % end); }

std::string randomValue(Random& random) {
  std::string value(below(random, 7), '\0');
  for (char& byte : value) byte = static_cast<char>(random());
  return value;
}

FieldMatch randomMatch(Random& random) {
  FieldMatch match;
  match.set_field_id(below(random, 4));
  const std::string first = randomValue(random);
  const std::string second = randomValue(random);
  switch (below(random, 7)) {
    case 0:
      match.mutable_exact()->set_value(first);
      break;
    case 1:
      match.mutable_lpm()->set_value(first);
      match.mutable_lpm()->set_prefix_len(static_cast<int32_t>(below(random, 40)) - 4);
      break;
    case 2:
      match.mutable_ternary()->set_value(first);
      match.mutable_ternary()->set_mask(second);
      break;
    case 3:
      match.mutable_range()->set_low(first);
      match.mutable_range()->set_high(second);
      break;
    case 4:
      match.mutable_optional()->set_value(first);
      break;
    case 5:
      match.mutable_other()->set_type_url(first.empty() ? "" : "of another architecture");
      break;
    default:
      break;
  }
  return match;
}

// Mostly fields that entries have, at times any other.
Update randomUpdate(Random& random) {
  Update update;
  update.set_type(static_cast<Update::Type>(below(random, 5)));
  if (below(random, 20) == 0) return update;
  TableEntry& entry = *update.mutable_entity()->mutable_table_entry();
  const std::array tables{test::kIpv4, test::kAcl, test::kPort, test::kCounted, 0u, 77u};
  entry.set_table_id(tables[below(random, tables.size())]);
  for (uint32_t n = below(random, 4); n > 0; --n) *entry.add_match() = randomMatch(random);
  if (below(random, 2) == 0) entry.set_priority(static_cast<int32_t>(below(random, 9)) - 2);
  if (below(random, 4) == 0) entry.set_metadata(randomValue(random));
  if (below(random, 4) == 0) entry.set_controller_metadata(random());
  if (below(random, 12) == 0) entry.set_is_default_action(true);
  if (below(random, 12) == 0) entry.mutable_meter_config()->set_cir(1);
  if (below(random, 12) == 0) entry.set_idle_timeout_ns(-1);
  if (below(random, 12) == 0) entry.mutable_action()->set_action_profile_member_id(1);
  if (below(random, 4) == 0) return update;
  p4::v1::Action& action = *entry.mutable_action()->mutable_action();
  const std::array actions{test::kDrop, test::kForward, 0u, 5u};
  action.set_action_id(actions[below(random, actions.size())]);
  for (uint32_t n = below(random, 3); n > 0; --n) {
    auto* param = action.add_params();
    param->set_param_id(below(random, 4));
    param->set_value(randomValue(random));
  }
  return update;
}

// Adds good entries: random ones are nearly all refused.
Update anyUpdate(Random& random) {
  const auto type = static_cast<Update::Type>(1 + below(random, 3));
  switch (below(random, 4)) {
    case 0:
      return test::update(type, test::ipv4(1, 0x0a000000, 8, below(random, 9)));
    case 1:
      return test::update(type, test::acl(0x0a000000, 0xff000000, 1 + below(random, 9)));
    default:
      return randomUpdate(random);
  }
}

TEST(WireUpdate, IsCheckedAsItsMessageIs) {
  Random random(7);
  const P4InfoIndex index(test::pipelineConfig().p4info());
  int direct = 0;
  for (int n = 0; n < 20000; ++n) direct += expectAlike(index, anyUpdate(random)) ? 1 : 0;
  EXPECT_GT(direct, 5000);
}

// The parts of the bytes as an update; empty where they are left to Protocol Buffers.
std::string partsOf(std::string_view bytes) {
  WireUpdate wire;
  if (!readUpdate(bytes, &wire)) return "";
  Update update;
  update.set_type(wire.type);
  TableEntry& entry = *update.mutable_entity()->mutable_table_entry();
  entry.set_table_id(wire.tableId);
  entry.set_priority(wire.priority);
  entry.set_controller_metadata(wire.controllerMetadata);
  entry.set_metadata(std::string(wire.metadata));
  for (const MatchView& view : wire.matches) {
    using Form = MatchView::Form;
    FieldMatch& match = *entry.add_match();
    match.set_field_id(view.fieldId);
    const std::string value(view.value);
    const std::string second(view.second);
    if (view.form == Form::exact) match.mutable_exact()->set_value(value);
    if (view.form == Form::optional) match.mutable_optional()->set_value(value);
    if (view.form == Form::lpm) match.mutable_lpm()->set_value(value);
    if (view.form == Form::lpm) match.mutable_lpm()->set_prefix_len(view.prefixLength);
    if (view.form == Form::ternary) match.mutable_ternary()->set_value(value);
    if (view.form == Form::ternary) match.mutable_ternary()->set_mask(second);
    if (view.form == Form::range) match.mutable_range()->set_low(value);
    if (view.form == Form::range) match.mutable_range()->set_high(second);
  }
  if (wire.hasAction) {
    p4::v1::Action& action = *entry.mutable_action()->mutable_action();
    action.set_action_id(wire.actionId);
    for (const ParamView& view : wire.params) {
      auto* param = action.add_params();
      param->set_param_id(view.id);
      param->set_value(std::string(view.value));
    }
  }
  return update.DebugString();
}

// Bytes that are changed, cut or doubled are read as Protocol Buffers read them, or not at all.
TEST(WireUpdate, ReadsDamagedBytesAsProtocolBuffersDo) {
  Random random(11);
  int taken = 0;
  for (int n = 0; n < 200000; ++n) {
    std::string bytes = anyUpdate(random).SerializeAsString();
    for (uint32_t changes = below(random, 3); changes > 0 && !bytes.empty(); --changes) {
      const size_t at = below(random, static_cast<uint32_t>(bytes.size()));
      switch (below(random, 4)) {
        case 0:
          bytes[at] = static_cast<char>(random());
          break;
        case 1:
          bytes.erase(at, 1 + below(random, 3));
          break;
        case 2:
          bytes.insert(at, bytes.substr(below(random, static_cast<uint32_t>(bytes.size()))));
          break;
        default:
          bytes[at] = static_cast<char>(static_cast<uint8_t>(bytes[at]) ^ 1u << below(random, 8));
      }
    }
    const std::string parts = partsOf(bytes);
    if (parts.empty()) continue;
    ++taken;
    Update parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes)) << testing::PrintToString(bytes);
    ASSERT_EQ(parts, parsed.DebugString()) << testing::PrintToString(bytes);
  }
  EXPECT_GT(taken, 20000);
}

std::string withFieldAgain(const Update& update) {
  return update.SerializeAsString() + update.SerializeAsString();
}

TEST(WireUpdate, LeavesTheUnusualToProtocolBuffers) {
  const Update good = test::update(Update::INSERT, test::ipv4(1, 0x0a000000, 8, 3));
  Update member = good;
  member.mutable_entity()->mutable_table_entry()->mutable_action()->set_action_profile_member_id(1);
  Update meter = good;
  meter.mutable_entity()->mutable_table_entry()->mutable_meter_config();
  WireUpdate wire;
  EXPECT_TRUE(readUpdate(good.SerializeAsString(), &wire));
  const std::vector<std::pair<const char*, std::string>> cases{
      {"no entity", ""},
      {"a field that comes twice", withFieldAgain(good)},
      {"an unknown field", good.SerializeAsString() + std::string("\x18\x01", 2)},
      {"a field above all", good.SerializeAsString() + std::string("\x80\x02\x01", 3)},
      {"a group", good.SerializeAsString() + std::string("\x0b\x0c", 2)},
      {"a number cut off", good.SerializeAsString() + std::string("\x08\x80", 2)},
      {"a length beyond the end", std::string("\x12\x7f\x00", 3)},
      {"a number of more than 64 bits", "\x08" + std::string(11, '\xff') + std::string("\x01", 1)},
      {"a member", member.SerializeAsString()},
      {"a meter", meter.SerializeAsString()},
  };
  for (const auto& [what, bytes] : cases) {
    EXPECT_FALSE(readUpdate(bytes, &wire)) << what;
  }
}

}  // namespace
}  // namespace pi::fe::proto
