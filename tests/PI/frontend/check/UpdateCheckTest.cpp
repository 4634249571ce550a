// The checks of an update that need no other entry: each rule with its code.
#include "PI/frontend/check/UpdateCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "PI/frontend/base/Refusal.h"
#include "tests/PI/frontend/support/TestPipeline.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::HasSubstr;
using namespace std::string_literals;

struct Case {
  const char* what;
  Update update;
  int code;
  const char* says;
};

Update changed(TableEntry entry, const std::function<void(TableEntry&)>& change,
               Update::Type type = Update::INSERT) {
  change(entry);
  return test::update(type, entry);
}

TableEntry good() { return test::ipv4(1, 0x0a000000, 8, 3); }
TableEntry goodAcl() { return test::acl(0x0a000000, 0xff000000, 10); }
TableEntry counted() { return test::exact(test::kCounted, 1); }

TableEntry portEntry(const std::string& low, const std::string& high) {
  TableEntry entry = test::query(test::kPort);
  auto* range = entry.add_match();
  range->set_field_id(1);
  range->mutable_range()->set_low(low);
  range->mutable_range()->set_high(high);
  auto* tos = entry.add_match();
  tos->set_field_id(2);
  tos->mutable_optional()->set_value("\x01");
  entry.set_priority(1);
  entry.mutable_action()->mutable_action()->set_action_id(test::kDrop);
  return entry;
}

void expectCases(const std::vector<Case>& cases) {
  const P4InfoIndex index(test::pipelineConfig().p4info());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      checkedUpdate(index, c.update);
      EXPECT_EQ(code::ok, c.code) << "not refused";
    } catch (const Refusal& refusal) {
      EXPECT_EQ(refusal.code(), c.code) << refusal.message();
      EXPECT_THAT(refusal.message(), HasSubstr(c.says));
    }
  }
}

TEST(UpdateCheck, OfTheUpdate) {
  Update empty;
  empty.set_type(Update::INSERT);
  const auto cell = [](Update::Type type, uint32_t id, int64_t index) {
    Update update;
    update.set_type(type);
    update.mutable_entity()->mutable_counter_entry()->set_counter_id(id);
    update.mutable_entity()->mutable_counter_entry()->mutable_index()->set_index(index);
    return update;
  };
  Update multicast = empty;
  multicast.mutable_entity()
      ->mutable_packet_replication_engine_entry()
      ->mutable_multicast_group_entry()
      ->set_multicast_group_id(7);
  const auto deleteOf = [](Update update) {
    update.set_type(Update::DELETE);
    return update;
  };
  const auto digest = [&](uint32_t id) {
    Update update = deleteOf({});
    update.mutable_entity()->mutable_digest_entry()->set_digest_id(id);
    return update;
  };
  Update noReplication = empty;
  noReplication.mutable_entity()->mutable_packet_replication_engine_entry();
  expectCases({
      {"good", test::update(Update::INSERT, good()), code::ok, ""},
      {"type not given", test::update(Update::UNSPECIFIED, good()), code::invalidArgument, "type"},
      {"type unknown", test::update(static_cast<Update::Type>(9), good()), code::invalidArgument,
       "type is 9"},
      {"no entity", empty, code::invalidArgument, "no entity"},
      {"counter", cell(Update::MODIFY, 0x12000001, 7), code::unimplemented, "counter ingress.hits"},
      {"counter INSERT", cell(Update::INSERT, 0x12000001, 7), code::invalidArgument, "use MODIFY"},
      {"cell beyond the end", cell(Update::MODIFY, 0x12000001, 8), code::outOfRange, "8 cells"},
      {"cell before the start", cell(Update::MODIFY, 0x12000001, -1), code::invalidArgument, "-1"},
      {"counter 0", cell(Update::MODIFY, 0, 0), code::invalidArgument, "counter id is 0"},
      {"counter unknown", cell(Update::MODIFY, 0x12000009, 0), code::invalidArgument,
       "0x12000009, which is not in the P4Info"},
      {"nothing to delete", deleteOf(multicast), code::notFound,
       "multicast group 7: there is none"},
      {"digest that has not begun", digest(0x17000001), code::notFound, "digest ingress.learn"},
      {"digest unknown", digest(0x17000009), code::invalidArgument, "0x17000009, which is not in"},
      {"multicast group", multicast, code::unimplemented, "multicast group 7"},
      {"replication of nothing", noReplication, code::invalidArgument, "no entity"},
      {"table 0", test::update(Update::INSERT, test::query(0)), code::invalidArgument, "id is 0"},
      {"an unknown id", test::update(Update::INSERT, test::query(0x02000099)),
       code::invalidArgument, "0x02000099, which is not in the P4Info"},
      {"the id of an action", test::update(Update::INSERT, test::query(test::kDrop)),
       code::invalidArgument, "action drop"},
  });
}

TEST(UpdateCheck, OfTheKey) {
  const auto lpm = [](TableEntry& e) { return e.mutable_match(1)->mutable_lpm(); };
  const auto ternary = [](TableEntry& e) { return e.mutable_match(0)->mutable_ternary(); };
  expectCases({
      {"order means nothing",
       changed(good(), [](auto& e) { e.mutable_match()->SwapElements(0, 1); }), code::ok, ""},
      {"leading zeros",
       changed(good(),
               [](auto& e) { e.mutable_match(0)->mutable_exact()->set_value("\0\0\0\1"s); }),
       code::ok, ""},
      {"LPM left out", test::update(Update::DELETE, test::ipv4Key(1, 0, 0)), code::ok, ""},
      {"exact left out", changed(good(), [](auto& e) { e.mutable_match()->DeleteSubrange(0, 1); }),
       code::invalidArgument, "table ingress.ipv4: field vrf"},
      {"field unknown", changed(good(), [](auto& e) { e.mutable_match(0)->set_field_id(9); }),
       code::invalidArgument, "no field with the id 9"},
      {"field twice", changed(good(), [](auto& e) { *e.add_match() = e.match(0); }),
       code::invalidArgument, "vrf: the match is given twice"},
      {"wrong kind", changed(good(), [](auto& e) { e.mutable_match(0)->mutable_optional(); }),
       code::invalidArgument, "vrf: the match must be of the kind exact"},
      {"no kind", changed(good(), [](auto& e) { e.mutable_match(0)->clear_exact(); }),
       code::invalidArgument, "kind exact"},
      {"value too wide",
       changed(good(), [](auto& e) { e.mutable_match(0)->mutable_exact()->set_value("\x10\x63"); }),
       code::outOfRange, "vrf: the value 0x1063 is wider than the field's 12 bits"},
      {"value empty",
       changed(good(), [](auto& e) { e.mutable_match(0)->mutable_exact()->clear_value(); }),
       code::outOfRange, "no number"},
      {"prefix 0", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(0); }),
       code::invalidArgument, "leave the field out"},
      {"prefix negative", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(-1); }),
       code::invalidArgument, "prefix length -1"},
      {"prefix too long", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(33); }),
       code::invalidArgument, "from 1 to 32"},
      {"bits below the prefix", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(6); }),
       code::invalidArgument, "bits below the prefix length 6"},
      {"all ternary left out", changed(goodAcl(), [](auto& e) { e.clear_match(); }), code::ok, ""},
      {"mask of ones",
       changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\xff\xff\xff\xff"); }), code::ok,
       ""},
      {"mask 0", changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\0"s); }),
       code::invalidArgument, "mask is 0"},
      {"bits outside the mask",
       changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\xf0\0\0"s); }),
       code::invalidArgument, "outside the mask 0xf00000"},
      {"mask too wide", changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\1\0\0\0\0"s); }),
       code::outOfRange, "ingress.acl: field src"},
      {"range of one value", test::update(Update::INSERT, portEntry("\x05", "\x05")), code::ok, ""},
      {"range backwards", test::update(Update::INSERT, portEntry("\x05", "\x04")),
       code::invalidArgument, "ends before it begins"},
      {"range of everything", test::update(Update::INSERT, portEntry("\0"s, "\x0f\xff")),
       code::invalidArgument, "every value"},
      {"range of two values", test::update(Update::INSERT, portEntry("\x05", "\x06")),
       code::unimplemented, "field l4: ranges of more than one value"},
      {"range left out",
       changed(portEntry("\1", "\1"), [](auto& e) { e.mutable_match()->DeleteSubrange(0, 1); }),
       code::unimplemented, "field l4"},
      {"optional left out",
       changed(portEntry("\1", "\1"), [](auto& e) { e.mutable_match()->RemoveLast(); }),
       code::unimplemented, "field tos"},
      {"no priority where one is due", changed(goodAcl(), [](auto& e) { e.set_priority(0); }),
       code::invalidArgument, "priority is 0"},
      {"negative priority", changed(goodAcl(), [](auto& e) { e.set_priority(-4); }),
       code::invalidArgument, "priority is -4"},
      {"priority where none is due", changed(good(), [](auto& e) { e.set_priority(1); }),
       code::invalidArgument, "have none"},
      {"keyless table", test::update(Update::INSERT, test::query(test::kKeyless)),
       code::invalidArgument, "only a default entry"},
      {"other match kind", test::update(Update::INSERT, test::query(test::kOther)),
       code::unimplemented, "field key is matched as 'fuzzy'"},
  });
}

TEST(UpdateCheck, OfTheAction) {
  const auto action = [](TableEntry& e) { return e.mutable_action()->mutable_action(); };
  expectCases({
      {"parameters in any order",
       changed(good(), [&](auto& e) { action(e)->mutable_params()->SwapElements(0, 1); }), code::ok,
       ""},
      {"INSERT without", changed(good(), [](auto& e) { e.clear_action(); }), code::invalidArgument,
       "an INSERT needs an action"},
      {"MODIFY without",
       changed(
           good(), [](auto& e) { e.clear_action(); }, Update::MODIFY),
       code::ok, ""},
      {"a member in a direct table",
       changed(good(), [](auto& e) { e.mutable_action()->set_action_profile_member_id(1); }),
       code::invalidArgument, "no action profile"},
      {"an action in an action profile's table", changed(test::exact(test::kWcmp, 1), [](auto&) {}),
       code::invalidArgument, "ingress.nexthops: give a member, group or action set instead"},
      {"a group without a selector",
       changed(test::exact(test::kPlain, 1),
               [](auto& e) { e.mutable_action()->set_action_profile_group_id(1); }),
       code::invalidArgument, "ingress.plain_nexthops, which has no selector: give a member"},
      {"member 0",
       changed(test::exact(test::kWcmp, 1),
               [](auto& e) { e.mutable_action()->set_action_profile_member_id(0); }),
       code::invalidArgument, "member id is 0"},
      {"not the table's",
       changed(goodAcl(), [&](auto& e) { action(e)->set_action_id(test::kForward); }),
       code::invalidArgument, "no action with the id 0x01000001"},
      {"default only", changed(good(), [&](auto& e) { action(e)->set_action_id(test::kNoAction); }),
       code::permissionDenied, "NoAction may only be the default action"},
      {"group action", changed(good(), [&](auto& e) { action(e)->set_action_id(test::kGroup); }),
       code::permissionDenied, "group action"},
      {"parameter missing",
       changed(good(), [&](auto& e) { action(e)->mutable_params()->RemoveLast(); }),
       code::invalidArgument, "action forward: parameter dmac is missing"},
      {"parameter twice",
       changed(good(), [&](auto& e) { *action(e)->add_params() = action(e)->params(0); }),
       code::invalidArgument, "port is given twice"},
      {"parameter unknown",
       changed(good(), [&](auto& e) { action(e)->add_params()->set_param_id(7); }),
       code::invalidArgument, "no parameter with the id 7"},
      {"parameter too wide",
       changed(good(), [&](auto& e) { action(e)->mutable_params(0)->set_value("\2\1"); }),
       code::outOfRange, "port: the value 0x0201"},
      {"parameter empty",
       changed(good(), [&](auto& e) { action(e)->mutable_params(0)->clear_value(); }),
       code::outOfRange, "(empty)"},
  });
}

TEST(UpdateCheck, OfTheOtherFields) {
  const auto nonsense = [](TableEntry& e) {
    e.mutable_action()->mutable_action()->set_action_id(99);
    e.set_idle_timeout_ns(-1);
    e.mutable_counter_data();
  };
  expectCases({
      {"is_const",
       changed(
           good(), [](auto& e) { e.set_is_const(true); }, Update::DELETE),
       code::invalidArgument, "is_const"},
      {"DELETE looks at the key alone", changed(good(), nonsense, Update::DELETE), code::ok, ""},
      {"idle time-out where there are none",
       changed(good(), [](auto& e) { e.set_idle_timeout_ns(5); }), code::invalidArgument,
       "idle time-out is 5"},
      {"idle time-out negative", changed(counted(), [](auto& e) { e.set_idle_timeout_ns(-5); }),
       code::invalidArgument, "-5"},
      {"idle time-out", changed(counted(), [](auto& e) { e.set_idle_timeout_ns(5); }),
       code::unimplemented, "table ingress.counted: idle time-outs"},
      {"last hit", changed(counted(), [](auto& e) { e.mutable_time_since_last_hit(); }),
       code::invalidArgument, "time_since_last_hit"},
      {"counter where there is none", changed(good(), [](auto& e) { e.mutable_counter_data(); }),
       code::invalidArgument, "no direct counter"},
      {"counter",
       changed(
           counted(), [](auto& e) { e.mutable_counter_data(); }, Update::MODIFY),
       code::unimplemented, "counter_data"},
      {"counter that starts at 0", changed(counted(), [](auto& e) { e.mutable_counter_data(); }),
       code::ok, ""},
      {"counter that starts elsewhere",
       changed(counted(), [](auto& e) { e.mutable_counter_data()->set_byte_count(1); }),
       code::unimplemented, "counter_data"},
      {"meter where there is none", changed(good(), [](auto& e) { e.mutable_meter_config(); }),
       code::invalidArgument, "no direct meter"},
      {"colors not zero",
       changed(counted(),
               [](auto& e) { e.mutable_meter_counter_data()->mutable_red()->set_byte_count(1); }),
       code::invalidArgument, "must be zero"},
      {"colors", changed(counted(), [](auto& e) { e.mutable_meter_counter_data(); }),
       code::unimplemented, "meter_counter_data"},
      {"constant table", test::update(Update::INSERT, test::exact(test::kConst, 1)),
       code::permissionDenied, "table ingress.const is constant"},
      {"MODIFY in a constant table", test::update(Update::MODIFY, test::exact(test::kConst, 1)),
       code::permissionDenied, "constant"},
      {"table with initial entries", test::update(Update::INSERT, test::exact(test::kInitial, 1)),
       code::ok, ""},
  });
}

TEST(UpdateCheck, OfTheDefaultEntry) {
  const auto defaultOf = [](
                             uint32_t table, Update::Type type,
                             const std::function<void(TableEntry&)>& change = [](TableEntry&) {}) {
    TableEntry entry = test::query(table);
    entry.set_is_default_action(true);
    return changed(entry, change, type);
  };
  const auto forwards = [](const std::string& port) {
    return [port](TableEntry& entry) {
      auto* action = entry.mutable_action()->mutable_action();
      action->set_action_id(test::kForward);
      for (const auto& [id, value] : {std::pair(2, "\2"s), std::pair(1, port)}) {
        action->add_params()->set_param_id(id);
        action->mutable_params()->rbegin()->set_value(value);
      }
    };
  };
  expectCases({
      {"back to what it is", defaultOf(test::kIpv4, Update::MODIFY), code::ok, ""},
      {"to what it is", defaultOf(test::kIpv4, Update::MODIFY, forwards("\0\1"s)), code::ok, ""},
      {"to another parameter", defaultOf(test::kIpv4, Update::MODIFY, forwards("\2")),
       code::unimplemented, "table ingress.ipv4: the default entry"},
      {"to metadata", defaultOf(test::kIpv4, Update::MODIFY, [](auto& e) { e.set_metadata("m"); }),
       code::unimplemented, "table ingress.ipv4: the default entry"},
      {"INSERT", defaultOf(test::kIpv4, Update::INSERT), code::invalidArgument, "always exists"},
      {"DELETE", defaultOf(test::kIpv4, Update::DELETE), code::invalidArgument, "always exists"},
      {"with a match", defaultOf(test::kIpv4, Update::MODIFY, [](auto& e) { e.add_match(); }),
       code::invalidArgument, "neither match nor priority"},
      {"with a priority", defaultOf(test::kAcl, Update::MODIFY, [](auto& e) { e.set_priority(1); }),
       code::invalidArgument, "neither match nor priority"},
      {"with a time-out",
       defaultOf(test::kCounted, Update::MODIFY, [](auto& e) { e.set_idle_timeout_ns(1); }),
       code::invalidArgument, "idle time-out"},
      {"constant", defaultOf(test::kConst, Update::MODIFY), code::permissionDenied, "is constant"},
      {"of an action profile", defaultOf(test::kWcmp, Update::MODIFY), code::permissionDenied,
       "is constant"},
  });
}

}  // namespace
}  // namespace pi::fe::proto
