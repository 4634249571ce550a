// The checks of an update that need no other entry: each rule with its code.
#include <gtest/gtest.h>

#include "tests/PI/frontend/check/UpdateCases.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using namespace std::string_literals;

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
      {"good", test::update(Update::INSERT, good())},
      {"type not given", test::update(Update::UNSPECIFIED, good()), "type"},
      {"type unknown", test::update(static_cast<Update::Type>(9), good()), "type is 9"},
      {"no entity", empty, "no entity"},
      {"counter", cell(Update::MODIFY, 0x12000001, 7), "counter ingress.hits", code::unimplemented},
      {"counter INSERT", cell(Update::INSERT, 0x12000001, 7), "use MODIFY"},
      {"cell beyond the end", cell(Update::MODIFY, 0x12000001, 8), "8 cells", code::outOfRange},
      {"cell before the start", cell(Update::MODIFY, 0x12000001, -1), "-1"},
      {"counter 0", cell(Update::MODIFY, 0, 0), "counter id is 0"},
      {"counter unknown", cell(Update::MODIFY, 0x12000009, 0),
       "0x12000009, which is not in the P4Info"},
      {"nothing to delete", deleteOf(multicast), "multicast group 7: there is none",
       code::notFound},
      {"digest that has not begun", digest(0x17000001), "digest ingress.learn", code::notFound},
      {"digest unknown", digest(0x17000009), "0x17000009, which is not in"},
      {"multicast group", multicast, "multicast group 7", code::unimplemented},
      {"replication of nothing", noReplication, "no entity"},
      {"table 0", test::update(Update::INSERT, test::query(0)), "id is 0"},
      {"an unknown id", test::update(Update::INSERT, test::query(0x02000099)),
       "0x02000099, which is not in the P4Info"},
      {"the id of an action", test::update(Update::INSERT, test::query(test::kDrop)),
       "action drop"},
  });
}

TEST(UpdateCheck, OfTheKey) {
  const auto lpm = [](TableEntry& e) { return e.mutable_match(1)->mutable_lpm(); };
  const auto ternary = [](TableEntry& e) { return e.mutable_match(0)->mutable_ternary(); };
  expectCases({
      {"order means nothing",
       changed(good(), [](auto& e) { e.mutable_match()->SwapElements(0, 1); })},
      {"leading zeros",
       changed(good(),
               [](auto& e) { e.mutable_match(0)->mutable_exact()->set_value("\0\0\0\1"s); })},
      {"LPM left out", test::update(Update::DELETE, test::ipv4Key(1, 0, 0))},
      {"exact left out", changed(good(), [](auto& e) { e.mutable_match()->DeleteSubrange(0, 1); }),
       "table ingress.ipv4: field vrf"},
      {"field unknown", changed(good(), [](auto& e) { e.mutable_match(0)->set_field_id(9); }),
       "no field with the id 9"},
      {"field twice", changed(good(), [](auto& e) { *e.add_match() = e.match(0); }),
       "vrf: the match is given twice"},
      {"wrong kind", changed(good(), [](auto& e) { e.mutable_match(0)->mutable_optional(); }),
       "vrf: the match must be of the kind exact"},
      {"no kind", changed(good(), [](auto& e) { e.mutable_match(0)->clear_exact(); }),
       "kind exact"},
      {"value too wide",
       changed(good(), [](auto& e) { e.mutable_match(0)->mutable_exact()->set_value("\x10\x63"); }),
       "vrf: the value 0x1063 is wider than the field's 12 bits", code::outOfRange},
      {"value empty",
       changed(good(), [](auto& e) { e.mutable_match(0)->mutable_exact()->clear_value(); }),
       "no number", code::outOfRange},
      {"prefix 0", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(0); }),
       "leave the field out"},
      {"prefix negative", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(-1); }),
       "prefix length -1"},
      {"prefix too long", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(33); }),
       "from 1 to 32"},
      {"bits below the prefix", changed(good(), [&](auto& e) { lpm(e)->set_prefix_len(6); }),
       "bits below the prefix length 6"},
      {"all ternary left out", changed(goodAcl(), [](auto& e) { e.clear_match(); })},
      {"mask of ones",
       changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\xff\xff\xff\xff"); })},
      {"mask 0", changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\0"s); }), "mask is 0"},
      {"bits outside the mask",
       changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\xf0\0\0"s); }),
       "outside the mask 0xf00000"},
      {"mask too wide", changed(goodAcl(), [&](auto& e) { ternary(e)->set_mask("\1\0\0\0\0"s); }),
       "ingress.acl: field src", code::outOfRange},
      {"range of one value", test::update(Update::INSERT, portEntry("\x05", "\x05"))},
      {"range backwards", test::update(Update::INSERT, portEntry("\x05", "\x04")),
       "ends before it begins"},
      {"range of everything", test::update(Update::INSERT, portEntry("\0"s, "\x0f\xff")),
       "every value"},
      {"range of two values", test::update(Update::INSERT, portEntry("\x05", "\x06")),
       "field l4: ranges of more than one value", code::unimplemented},
      {"range left out",
       changed(portEntry("\1", "\1"), [](auto& e) { e.mutable_match()->DeleteSubrange(0, 1); }),
       "field l4", code::unimplemented},
      {"optional left out",
       changed(portEntry("\1", "\1"), [](auto& e) { e.mutable_match()->RemoveLast(); }),
       "field tos", code::unimplemented},
      {"no priority where one is due", changed(goodAcl(), [](auto& e) { e.set_priority(0); }),
       "priority is 0"},
      {"negative priority", changed(goodAcl(), [](auto& e) { e.set_priority(-4); }),
       "priority is -4"},
      {"priority where none is due", changed(good(), [](auto& e) { e.set_priority(1); }),
       "have none"},
      {"keyless table", test::update(Update::INSERT, test::query(test::kKeyless)),
       "only a default entry"},
      {"other match kind", test::update(Update::INSERT, test::query(test::kOther)),
       "field key is matched as 'fuzzy'", code::unimplemented},
  });
}

TEST(UpdateCheck, OfTheAction) {
  const auto action = [](TableEntry& e) { return e.mutable_action()->mutable_action(); };
  expectCases({
      {"parameters in any order",
       changed(good(), [&](auto& e) { action(e)->mutable_params()->SwapElements(0, 1); })},
      {"INSERT without", changed(good(), [](auto& e) { e.clear_action(); }),
       "an INSERT needs an action"},
      {"MODIFY without", changed(
                             good(), [](auto& e) { e.clear_action(); }, Update::MODIFY)},
      {"a member in a direct table",
       changed(good(), [](auto& e) { e.mutable_action()->set_action_profile_member_id(1); }),
       "no action profile"},
      {"an action in an action profile's table", changed(test::exact(test::kWcmp, 1), [](auto&) {}),
       "ingress.nexthops: give a member, group or action set instead"},
      {"a group without a selector",
       changed(test::exact(test::kPlain, 1),
               [](auto& e) { e.mutable_action()->set_action_profile_group_id(1); }),
       "ingress.plain_nexthops, which has no selector: give a member"},
      {"member 0",
       changed(test::exact(test::kWcmp, 1),
               [](auto& e) { e.mutable_action()->set_action_profile_member_id(0); }),
       "member id is 0"},
      {"not the table's",
       changed(goodAcl(), [&](auto& e) { action(e)->set_action_id(test::kForward); }),
       "no action with the id 0x01000001"},
      {"default only", changed(good(), [&](auto& e) { action(e)->set_action_id(test::kNoAction); }),
       "NoAction may only be the default action", code::permissionDenied},
      {"group action", changed(good(), [&](auto& e) { action(e)->set_action_id(test::kGroup); }),
       "group action", code::permissionDenied},
      {"parameter missing",
       changed(good(), [&](auto& e) { action(e)->mutable_params()->RemoveLast(); }),
       "action forward: parameter dmac is missing"},
      {"parameter twice",
       changed(good(), [&](auto& e) { *action(e)->add_params() = action(e)->params(0); }),
       "port is given twice"},
      {"parameter unknown",
       changed(good(), [&](auto& e) { action(e)->add_params()->set_param_id(7); }),
       "no parameter with the id 7"},
      {"parameter too wide",
       changed(good(), [&](auto& e) { action(e)->mutable_params(0)->set_value("\2\1"); }),
       "port: the value 0x0201", code::outOfRange},
      {"parameter empty",
       changed(good(), [&](auto& e) { action(e)->mutable_params(0)->clear_value(); }), "(empty)",
       code::outOfRange},
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
       "is_const"},
      {"DELETE looks at the key alone", changed(good(), nonsense, Update::DELETE)},
      {"idle time-out where there are none",
       changed(good(), [](auto& e) { e.set_idle_timeout_ns(5); }), "idle time-out is 5"},
      {"idle time-out negative", changed(counted(), [](auto& e) { e.set_idle_timeout_ns(-5); }),
       "-5"},
      {"idle time-out", changed(counted(), [](auto& e) { e.set_idle_timeout_ns(5); }),
       "table ingress.counted: idle time-outs", code::unimplemented},
      {"last hit", changed(counted(), [](auto& e) { e.mutable_time_since_last_hit(); }),
       "time_since_last_hit"},
      {"counter where there is none", changed(good(), [](auto& e) { e.mutable_counter_data(); }),
       "no direct counter"},
      {"counter",
       changed(
           counted(), [](auto& e) { e.mutable_counter_data(); }, Update::MODIFY),
       "counter_data", code::unimplemented},
      {"counter that starts at 0", changed(counted(), [](auto& e) { e.mutable_counter_data(); })},
      {"counter that starts elsewhere",
       changed(counted(), [](auto& e) { e.mutable_counter_data()->set_byte_count(1); }),
       "counter_data", code::unimplemented},
      {"meter where there is none", changed(good(), [](auto& e) { e.mutable_meter_config(); }),
       "no direct meter"},
      {"colors not zero",
       changed(counted(),
               [](auto& e) { e.mutable_meter_counter_data()->mutable_red()->set_byte_count(1); }),
       "must be zero"},
      {"colors", changed(counted(), [](auto& e) { e.mutable_meter_counter_data(); }),
       "meter_counter_data", code::unimplemented},
      {"constant table", test::update(Update::INSERT, test::exact(test::kConst, 1)),
       "table ingress.const is constant", code::permissionDenied},
      {"MODIFY in a constant table", test::update(Update::MODIFY, test::exact(test::kConst, 1)),
       "constant", code::permissionDenied},
      {"table with initial entries", test::update(Update::INSERT, test::exact(test::kInitial, 1))},
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
      {"back to what it is", defaultOf(test::kIpv4, Update::MODIFY)},
      {"to what it is", defaultOf(test::kIpv4, Update::MODIFY, forwards("\0\1"s))},
      {"to another parameter", defaultOf(test::kIpv4, Update::MODIFY, forwards("\2")),
       "table ingress.ipv4: the default entry", code::unimplemented},
      {"to metadata", defaultOf(test::kIpv4, Update::MODIFY, [](auto& e) { e.set_metadata("m"); }),
       "table ingress.ipv4: the default entry", code::unimplemented},
      {"INSERT", defaultOf(test::kIpv4, Update::INSERT), "always exists"},
      {"DELETE", defaultOf(test::kIpv4, Update::DELETE), "always exists"},
      {"with a match", defaultOf(test::kIpv4, Update::MODIFY, [](auto& e) { e.add_match(); }),
       "neither match nor priority"},
      {"with a priority", defaultOf(test::kAcl, Update::MODIFY, [](auto& e) { e.set_priority(1); }),
       "neither match nor priority"},
      {"with a time-out",
       defaultOf(test::kCounted, Update::MODIFY, [](auto& e) { e.set_idle_timeout_ns(1); }),
       "idle time-out"},
      {"constant", defaultOf(test::kConst, Update::MODIFY), "is constant", code::permissionDenied},
      {"of an action profile", defaultOf(test::kWcmp, Update::MODIFY), "is constant",
       code::permissionDenied},
  });
}

}  // namespace
}  // namespace pi::fe::proto
