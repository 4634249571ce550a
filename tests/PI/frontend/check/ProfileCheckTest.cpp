// The checks of members, groups, action sets and direct meters that need no other entry.
#include <gtest/gtest.h>

#include "tests/PI/frontend/check/UpdateCases.h"

namespace pi::fe::proto {
namespace {

using p4::config::v1::ActionProfile;
using p4::config::v1::MeterSpec;
using p4::config::v1::P4Info;
using p4::v1::Update;
using Set = p4::v1::ActionProfileActionSet;
using namespace std::string_literals;

ActionProfile* nexthops(P4Info& p4Info) { return p4Info.mutable_action_profiles(0); }

TEST(ProfileCheck, OfMembers) {
  const auto member = test::member(1, 5);
  expectCases({
      {"good", test::update(Update::INSERT, member)},
      {"profile 0", changed(member, [](auto& m) { m.set_action_profile_id(0); }),
       "action profile id is 0"},
      {"a table's id", changed(member, [](auto& m) { m.set_action_profile_id(test::kWcmp); }),
       "table ingress.wcmp"},
      {"member 0", changed(member, [](auto& m) { m.set_member_id(0); }),
       "ingress.nexthops: the member id is 0"},
      {"without action", changed(member, [](auto& m) { m.clear_action(); }),
       "ingress.nexthops: member 1 needs an action"},
      {"MODIFY without action",
       changed(
           member, [](auto& m) { m.clear_action(); }, Update::MODIFY),
       "needs an action"},
      {"DELETE looks at the key alone",
       changed(
           member, [](auto& m) { m.mutable_action()->set_action_id(99); }, Update::DELETE)},
      {"another table's action",
       changed(member, [](auto& m) { m.mutable_action()->set_action_id(test::kGroup); }),
       "ingress.nexthops has no action with the id 0x01000004"},
      {"default only",
       changed(member, [](auto& m) { m.mutable_action()->set_action_id(test::kNoAction); }),
       "NoAction may only be the default action", code::permissionDenied},
      {"parameter missing",
       changed(member, [](auto& m) { m.mutable_action()->mutable_params()->RemoveLast(); }),
       "action profile ingress.nexthops: action forward: parameter dmac"},
  });
}

TEST(ProfileCheck, OfGroups) {
  const auto group = test::group(3, {{1, 1}, {2, 4}});
  const auto first = [](auto& g) { return g.mutable_members(0); };
  expectCases({
      {"good", test::update(Update::INSERT, group)},
      {"empty", test::update(Update::INSERT, test::group(3, {}))},
      {"group 0", changed(group, [](auto& g) { g.set_group_id(0); }), "group id is 0"},
      {"no selector",
       changed(group, [](auto& g) { g.set_action_profile_id(test::kPlainNexthops); }),
       "ingress.plain_nexthops: group 3: the profile has no selector"},
      {"DELETE looks at the key alone",
       changed(
           group, [](auto& g) { g.set_max_size(-1); }, Update::DELETE)},
      {"member 0", changed(group, [&](auto& g) { first(g)->set_member_id(0); }),
       "group 3: the id of a member is 0"},
      {"member twice", changed(group, [&](auto& g) { first(g)->set_member_id(2); }),
       "member 2 is listed twice; use its weight"},
      {"weight 0", changed(group, [&](auto& g) { first(g)->set_weight(0); }),
       "group 3: member 1 has the weight 0; it must be above 0"},
      {"weight negative", changed(group, [&](auto& g) { first(g)->set_weight(-2); }), "weight -2"},
      {"max_size negative", changed(group, [](auto& g) { g.set_max_size(-1); }), "max_size is -1"},
      {"max_size above the program's", changed(group, [](auto& g) { g.set_max_size(17); }),
       "max_group_size is 16"},
      {"max_size is the program's", changed(group, [](auto& g) { g.set_max_size(16); })},
      {"more than max_size", changed(group, [](auto& g) { g.set_max_size(4); }),
       "weights add up to 5; it may have 4", code::resourceExhausted},
      {"more than max_group_size", changed(group, [&](auto& g) { first(g)->set_weight(13); }),
       "add up to 17; it may have 16", code::resourceExhausted},
      {"watch port", changed(group, [&](auto& g) { first(g)->set_watch_port("\x00\x07"s); })},
      {"watch port 0", changed(group, [&](auto& g) { first(g)->set_watch_port("\0"s); }),
       "member 1 has the watch_port"},
      {"watch port of the highest number",
       changed(group, [&](auto& g) { first(g)->set_watch_port("\xff\xff\xfe\xff"s); })},
      {"watch port of the CPU",
       changed(group, [&](auto& g) { first(g)->set_watch_port("\xff\xff\xff\xfd"s); })},
      {"watch port of a reserved number",
       changed(group, [&](auto& g) { first(g)->set_watch_port("\0\xff\xff\xff\0"s); }),
       "member 1 has the watch_port 0x00ffffff00, which no port"},
      {"watch port too wide", changed(group, [&](auto& g) { first(g)->set_watch_port("12345"); }),
       "no port number"},
  });
}

TEST(ProfileCheck, OfGroupsOfOtherPrograms) {
  const auto group = test::group(3, {{1, 1}, {2, 4}});
  const auto weightless = test::group(3, {{1, 0}, {2, 0}});
  expectCases({{"weights", test::update(Update::INSERT, group),
                "member 1 has the weight 1; action profile ingress.nexthops takes no weights"},
               {"no weights", test::update(Update::INSERT, weightless)},
               {"a set with weights", test::update(Update::INSERT, test::oneShot(1, {{1, 1}})),
                "action set: element 0 has the weight 1"}},
              [](P4Info& p) { nexthops(p)->set_weights_disallowed(true); });
  expectCases({{"members count", test::update(Update::INSERT, group)},
               {"too many", test::update(Update::INSERT, test::group(3, {{1, 1}, {2, 1}, {3, 1}})),
                "members add up to 3; it may have 2", code::resourceExhausted},
               {"too heavy", test::update(Update::INSERT, test::group(3, {{1, 5}})),
                "has the weight 5; action profile ingress.nexthops takes"},
               {"a set with too many",
                test::update(Update::INSERT, test::oneShot(1, {{1, 1}, {2, 1}, {3, 1}})),
                "elements add up to 3"},
               {"a set too heavy", test::update(Update::INSERT, test::oneShot(1, {{1, 5}})),
                "element 0 has the weight 5"}},
              [](P4Info& p) {
                nexthops(p)->set_max_group_size(2);
                nexthops(p)->mutable_sum_of_members()->set_max_member_weight(4);
              });
  expectCases({{"no limit of the program's", test::update(Update::INSERT, group)},
               {"the target's", test::update(Update::INSERT, test::group(3, {{1, 2049}})),
                "add up to 2049; more than 2048", code::resourceExhausted},
               {"weights near the end of the numbers",
                test::update(Update::INSERT, test::group(3, {{1, INT32_MAX}, {2, INT32_MAX}})),
                "4294967294", code::resourceExhausted},
               {"max_size", changed(group, [](auto& g) { g.set_max_size(2049); }),
                "max_size is 2049", code::resourceExhausted},
               {"a set", test::update(Update::INSERT, test::oneShot(1, {{1, 2000}, {2, 49}})),
                "add up to 2049", code::resourceExhausted}},
              [](P4Info& p) { nexthops(p)->set_max_group_size(0); });
  expectCases(
      {{"ports by name",
        changed(group, [](auto& g) { g.mutable_members(0)->set_watch_port("Ethernet1"); })}},
      [](P4Info& p) {
        auto& types = *p.mutable_type_info()->mutable_new_types();
        types["port_t"].mutable_translated_type()->mutable_sdn_string();
      });
}

TEST(ProfileCheck, OfActionSets) {
  const auto entry = test::oneShot(1, {{1, 1}, {1, 1}, {2, 3}});
  const auto set = [](auto& e) { return e.mutable_action()->mutable_action_profile_action_set(); };
  const auto first = [&](auto& e) { return set(e)->mutable_action_profile_actions(0); };
  expectCases({
      {"equal actions", test::update(Update::INSERT, entry)},
      {"empty", test::update(Update::INSERT, test::oneShot(1, {}))},
      {"without a selector", changed(entry, [](auto& e) { e.set_table_id(test::kPlain); }),
       "give a member instead"},
      {"in a direct table", changed(entry, [](auto& e) { e.set_table_id(test::kConst); }), "",
       code::permissionDenied},
      {"action unknown",
       changed(entry, [&](auto& e) { first(e)->mutable_action()->set_action_id(test::kGroup); }),
       "table ingress.wcmp has no action"},
      {"parameter too wide",
       changed(
           entry,
           [&](auto& e) { first(e)->mutable_action()->mutable_params(0)->set_value("\xff\xff"); }),
       "port: the value 0xffff", code::outOfRange},
      {"weight 0", changed(entry, [&](auto& e) { first(e)->set_weight(0); }),
       "table ingress.wcmp: action set: element 0 has the weight 0"},
      {"too heavy", changed(entry, [&](auto& e) { first(e)->set_weight(13); }),
       "weights add up to 17; the program's max_group_size is 16"},
      {"watch port", changed(entry, [&](auto& e) { first(e)->set_watch_port("\0"s); }),
       "watch_port"},
      {"watch", changed(entry, [&](auto& e) { first(e)->set_watch(-1); }),
       "element 0 has the watch -1"},
      {"picked by hash, by weights", changed(entry,
                                             [&](auto& e) {
                                               set(e)->set_action_selection_mode(Set::HASH);
                                               set(e)->set_size_semantics(Set::SUM_OF_WEIGHTS);
                                             })},
      {"picked at random",
       changed(entry, [&](auto& e) { set(e)->set_action_selection_mode(Set::RANDOM); }), "RANDOM",
       code::unimplemented},
      {"picked somehow",
       changed(entry,
               [&](auto& e) {
                 set(e)->set_action_selection_mode(static_cast<Set::ActionSelectionMode>(9));
               }),
       "mode 9"},
      {"other semantics",
       changed(entry, [&](auto& e) { set(e)->set_size_semantics(Set::SUM_OF_MEMBERS); }),
       "SUM_OF_WEIGHTS", code::unimplemented},
      {"group action",
       changed(entry, [&](auto& e) { *set(e)->mutable_group_action() = test::forward(1); }),
       "group action", code::unimplemented},
  });
}

TEST(ProfileCheck, OfDirectMeters) {
  p4::v1::DirectMeterEntry meter;
  *meter.mutable_table_entry() = test::exact(test::kCounted, 1);
  meter.mutable_config()->set_cir(5);
  meter.mutable_config()->set_pir(5);
  const auto twoRates = [](auto& m) { m.mutable_config()->set_pir(6); };
  const auto excess = [](auto& m) { m.mutable_config()->set_eburst(1); };
  const auto changedMeter = [&](auto change, Update::Type type = Update::MODIFY) {
    return changed(meter, change, type);
  };
  const auto typeIs = [](MeterSpec::Type type) {
    return [type](P4Info& p) { p.mutable_direct_meters(0)->mutable_spec()->set_type(type); };
  };
  expectCases({
      {"good", changedMeter([](auto&) {})},
      {"default", changedMeter([](auto& m) { m.clear_config(); })},
      {"two rates", changedMeter(twoRates)},
      {"INSERT", changedMeter([](auto&) {}, Update::INSERT), "use MODIFY"},
      {"no entry", changedMeter([](auto& m) { m.clear_table_entry(); }), "names no table_entry"},
      {"no meter", changedMeter([](auto& m) { *m.mutable_table_entry() = test::ipv4(1, 0, 0, 1); }),
       "table ingress.ipv4 has no direct meter"},
      {"default entry", changedMeter([](auto& m) {
         m.mutable_table_entry()->Clear();
         m.mutable_table_entry()->set_table_id(test::kCounted);
         m.mutable_table_entry()->set_is_default_action(true);
       }),
       "default entry's direct meter", code::unimplemented},
      {"pir below cir", changedMeter([](auto& m) { m.mutable_config()->set_pir(4); }),
       "pir is 4, below the cir of 5"},
      {"negative", changedMeter([](auto& m) { m.mutable_config()->set_pburst(-1); }),
       "pburst is -1"},
      {"excess burst", changedMeter(excess), "eburst is 1"},
      {"burst too long", changedMeter([](auto& m) { m.mutable_config()->set_cburst(1ll << 32); }),
       "4294967295", code::outOfRange},
      {"colors", changedMeter([](auto& m) { m.mutable_counter_data(); }), "counter_data",
       code::unimplemented},
      {"through the table entry",
       changed(test::exact(test::kCounted, 1),
               [](auto& e) { e.mutable_meter_config()->set_cir(1); }),
       "table ingress.counted: direct meter: pir is 0"},
  });
  expectCases({{"one rate", changedMeter([](auto&) {})},
               {"two rates", changedMeter(twoRates), "single rate"},
               {"excess burst", changedMeter(excess), "eburst", code::unimplemented}},
              typeIs(MeterSpec::SINGLE_RATE_THREE_COLOR));
  expectCases({{"two rates", changedMeter(twoRates), "single rate"},
               {"excess burst", changedMeter(excess), "takes 0 only"}},
              typeIs(MeterSpec::SINGLE_RATE_TWO_COLOR));
}

}  // namespace
}  // namespace pi::fe::proto
