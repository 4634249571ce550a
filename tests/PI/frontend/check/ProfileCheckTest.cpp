// The checks of members, groups, action sets and direct meters that need no other entry.
#include <functional>

#include "PI/frontend/check/UpdateCheck.h"
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::config::v1::ActionProfile;
using p4::config::v1::MeterSpec;
using p4::config::v1::P4Info;
using p4::v1::Update;
using Set = p4::v1::ActionProfileActionSet;
using testing::HasSubstr;
using namespace std::string_literals;

struct Case {
  const char* what;
  Update update;
  int code;
  const char* says;
};

// `change` is made to the pipeline's P4Info, or to an entity.
template <typename Entity, typename Change>
Update with(Entity entity, Change change, Update::Type type = Update::INSERT) {
  change(entity);
  return test::update(type, entity);
}

void expectCases(
    const std::vector<Case>& cases, const std::function<void(P4Info&)>& change = [](P4Info&) {}) {
  P4Info p4Info = test::pipelineConfig().p4info();
  change(p4Info);
  const P4InfoIndex index(p4Info);
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

ActionProfile* nexthops(P4Info& p4Info) { return p4Info.mutable_action_profiles(0); }

TEST(ProfileCheck, OfMembers) {
  const auto member = test::member(1, 5);
  expectCases({
      {"good", test::update(Update::INSERT, member), code::ok, ""},
      {"profile 0", with(member, [](auto& m) { m.set_action_profile_id(0); }),
       code::invalidArgument, "action profile id is 0"},
      {"a table's id", with(member, [](auto& m) { m.set_action_profile_id(test::kWcmp); }),
       code::invalidArgument, "table ingress.wcmp"},
      {"member 0", with(member, [](auto& m) { m.set_member_id(0); }), code::invalidArgument,
       "ingress.nexthops: the member id is 0"},
      {"without action", with(member, [](auto& m) { m.clear_action(); }), code::invalidArgument,
       "ingress.nexthops: member 1 needs an action"},
      {"MODIFY without action",
       with(
           member, [](auto& m) { m.clear_action(); }, Update::MODIFY),
       code::invalidArgument, "needs an action"},
      {"DELETE looks at the key alone",
       with(
           member, [](auto& m) { m.mutable_action()->set_action_id(99); }, Update::DELETE),
       code::ok, ""},
      {"another table's action",
       with(member, [](auto& m) { m.mutable_action()->set_action_id(test::kGroup); }),
       code::invalidArgument, "ingress.nexthops has no action with the id 0x01000004"},
      {"default only",
       with(member, [](auto& m) { m.mutable_action()->set_action_id(test::kNoAction); }),
       code::permissionDenied, "NoAction may only be the default action"},
      {"parameter missing",
       with(member, [](auto& m) { m.mutable_action()->mutable_params()->RemoveLast(); }),
       code::invalidArgument, "action profile ingress.nexthops: action forward: parameter dmac"},
  });
}

TEST(ProfileCheck, OfGroups) {
  const auto group = test::group(3, {{1, 1}, {2, 4}});
  const auto first = [](auto& g) { return g.mutable_members(0); };
  expectCases({
      {"good", test::update(Update::INSERT, group), code::ok, ""},
      {"empty", test::update(Update::INSERT, test::group(3, {})), code::ok, ""},
      {"group 0", with(group, [](auto& g) { g.set_group_id(0); }), code::invalidArgument,
       "group id is 0"},
      {"no selector", with(group, [](auto& g) { g.set_action_profile_id(test::kPlainNexthops); }),
       code::invalidArgument, "ingress.plain_nexthops: group 3: the profile has no selector"},
      {"DELETE looks at the key alone",
       with(
           group, [](auto& g) { g.set_max_size(-1); }, Update::DELETE),
       code::ok, ""},
      {"member 0", with(group, [&](auto& g) { first(g)->set_member_id(0); }), code::invalidArgument,
       "group 3: the id of a member is 0"},
      {"member twice", with(group, [&](auto& g) { first(g)->set_member_id(2); }),
       code::invalidArgument, "member 2 is listed twice; use its weight"},
      {"weight 0", with(group, [&](auto& g) { first(g)->set_weight(0); }), code::invalidArgument,
       "group 3: member 1 has the weight 0; it must be above 0"},
      {"weight negative", with(group, [&](auto& g) { first(g)->set_weight(-2); }),
       code::invalidArgument, "weight -2"},
      {"max_size negative", with(group, [](auto& g) { g.set_max_size(-1); }), code::invalidArgument,
       "max_size is -1"},
      {"max_size above the program's", with(group, [](auto& g) { g.set_max_size(17); }),
       code::invalidArgument, "max_group_size is 16"},
      {"max_size is the program's", with(group, [](auto& g) { g.set_max_size(16); }), code::ok, ""},
      {"more than max_size", with(group, [](auto& g) { g.set_max_size(4); }),
       code::resourceExhausted, "weights add up to 5; it may have 4"},
      {"more than max_group_size", with(group, [&](auto& g) { first(g)->set_weight(13); }),
       code::resourceExhausted, "add up to 17; it may have 16"},
      {"watch port", with(group, [&](auto& g) { first(g)->set_watch_port("\x00\x07"s); }), code::ok,
       ""},
      {"watch port 0", with(group, [&](auto& g) { first(g)->set_watch_port("\0"s); }),
       code::invalidArgument, "member 1 has the watch_port"},
      {"watch port of the highest number",
       with(group, [&](auto& g) { first(g)->set_watch_port("\xff\xff\xfe\xff"s); }), code::ok, ""},
      {"watch port of the CPU",
       with(group, [&](auto& g) { first(g)->set_watch_port("\xff\xff\xff\xfd"s); }), code::ok, ""},
      {"watch port of a reserved number",
       with(group, [&](auto& g) { first(g)->set_watch_port("\0\xff\xff\xff\0"s); }),
       code::invalidArgument, "member 1 has the watch_port 0x00ffffff00, which no port"},
      {"watch port too wide", with(group, [&](auto& g) { first(g)->set_watch_port("12345"); }),
       code::invalidArgument, "no port number"},
  });
}

TEST(ProfileCheck, OfGroupsOfOtherPrograms) {
  const auto group = test::group(3, {{1, 1}, {2, 4}});
  const auto weightless = test::group(3, {{1, 0}, {2, 0}});
  expectCases({{"weights", test::update(Update::INSERT, group), code::invalidArgument,
                "member 1 has the weight 1; action profile ingress.nexthops takes no weights"},
               {"no weights", test::update(Update::INSERT, weightless), code::ok, ""},
               {"a set with weights", test::update(Update::INSERT, test::oneShot(1, {{1, 1}})),
                code::invalidArgument, "action set: element 0 has the weight 1"}},
              [](P4Info& p) { nexthops(p)->set_weights_disallowed(true); });
  expectCases({{"members count", test::update(Update::INSERT, group), code::ok, ""},
               {"too many", test::update(Update::INSERT, test::group(3, {{1, 1}, {2, 1}, {3, 1}})),
                code::resourceExhausted, "members add up to 3; it may have 2"},
               {"too heavy", test::update(Update::INSERT, test::group(3, {{1, 5}})),
                code::invalidArgument, "has the weight 5; action profile ingress.nexthops takes"},
               {"a set with too many",
                test::update(Update::INSERT, test::oneShot(1, {{1, 1}, {2, 1}, {3, 1}})),
                code::invalidArgument, "elements add up to 3"},
               {"a set too heavy", test::update(Update::INSERT, test::oneShot(1, {{1, 5}})),
                code::invalidArgument, "element 0 has the weight 5"}},
              [](P4Info& p) {
                nexthops(p)->set_max_group_size(2);
                nexthops(p)->mutable_sum_of_members()->set_max_member_weight(4);
              });
  expectCases({{"no limit of the program's", test::update(Update::INSERT, group), code::ok, ""},
               {"the target's", test::update(Update::INSERT, test::group(3, {{1, 2049}})),
                code::resourceExhausted, "add up to 2049; more than 2048"},
               {"weights near the end of the numbers",
                test::update(Update::INSERT, test::group(3, {{1, INT32_MAX}, {2, INT32_MAX}})),
                code::resourceExhausted, "4294967294"},
               {"max_size", with(group, [](auto& g) { g.set_max_size(2049); }),
                code::resourceExhausted, "max_size is 2049"},
               {"a set", test::update(Update::INSERT, test::oneShot(1, {{1, 2000}, {2, 49}})),
                code::resourceExhausted, "add up to 2049"}},
              [](P4Info& p) { nexthops(p)->set_max_group_size(0); });
  expectCases({{"ports by name",
                with(group, [](auto& g) { g.mutable_members(0)->set_watch_port("Ethernet1"); }),
                code::ok, ""}},
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
      {"equal actions", test::update(Update::INSERT, entry), code::ok, ""},
      {"empty", test::update(Update::INSERT, test::oneShot(1, {})), code::ok, ""},
      {"without a selector", with(entry, [](auto& e) { e.set_table_id(test::kPlain); }),
       code::invalidArgument, "give a member instead"},
      {"in a direct table", with(entry, [](auto& e) { e.set_table_id(test::kConst); }),
       code::permissionDenied, ""},
      {"action unknown",
       with(entry, [&](auto& e) { first(e)->mutable_action()->set_action_id(test::kGroup); }),
       code::invalidArgument, "table ingress.wcmp has no action"},
      {"parameter too wide",
       with(entry,
            [&](auto& e) { first(e)->mutable_action()->mutable_params(0)->set_value("\xff\xff"); }),
       code::outOfRange, "port: the value 0xffff"},
      {"weight 0", with(entry, [&](auto& e) { first(e)->set_weight(0); }), code::invalidArgument,
       "table ingress.wcmp: action set: element 0 has the weight 0"},
      {"too heavy", with(entry, [&](auto& e) { first(e)->set_weight(13); }), code::invalidArgument,
       "weights add up to 17; the program's max_group_size is 16"},
      {"watch port", with(entry, [&](auto& e) { first(e)->set_watch_port("\0"s); }),
       code::invalidArgument, "watch_port"},
      {"watch", with(entry, [&](auto& e) { first(e)->set_watch(-1); }), code::invalidArgument,
       "element 0 has the watch -1"},
      {"picked by hash, by weights",
       with(entry,
            [&](auto& e) {
              set(e)->set_action_selection_mode(Set::HASH);
              set(e)->set_size_semantics(Set::SUM_OF_WEIGHTS);
            }),
       code::ok, ""},
      {"picked at random",
       with(entry, [&](auto& e) { set(e)->set_action_selection_mode(Set::RANDOM); }),
       code::unimplemented, "RANDOM"},
      {"picked somehow",
       with(entry,
            [&](auto& e) {
              set(e)->set_action_selection_mode(static_cast<Set::ActionSelectionMode>(9));
            }),
       code::invalidArgument, "mode 9"},
      {"other semantics",
       with(entry, [&](auto& e) { set(e)->set_size_semantics(Set::SUM_OF_MEMBERS); }),
       code::unimplemented, "SUM_OF_WEIGHTS"},
      {"group action",
       with(entry, [&](auto& e) { *set(e)->mutable_group_action() = test::forward(1); }),
       code::unimplemented, "group action"},
  });
}

TEST(ProfileCheck, OfDirectMeters) {
  p4::v1::DirectMeterEntry meter;
  *meter.mutable_table_entry() = test::exact(test::kCounted, 1);
  meter.mutable_config()->set_cir(5);
  meter.mutable_config()->set_pir(5);
  const auto twoRates = [](auto& m) { m.mutable_config()->set_pir(6); };
  const auto excess = [](auto& m) { m.mutable_config()->set_eburst(1); };
  const auto with_ = [&](auto change, Update::Type type = Update::MODIFY) {
    return with(meter, change, type);
  };
  const auto typeIs = [](MeterSpec::Type type) {
    return [type](P4Info& p) { p.mutable_direct_meters(0)->mutable_spec()->set_type(type); };
  };
  expectCases({
      {"good", with_([](auto&) {}), code::ok, ""},
      {"default", with_([](auto& m) { m.clear_config(); }), code::ok, ""},
      {"two rates", with_(twoRates), code::ok, ""},
      {"INSERT", with_([](auto&) {}, Update::INSERT), code::invalidArgument, "use MODIFY"},
      {"no entry", with_([](auto& m) { m.clear_table_entry(); }), code::invalidArgument,
       "names no table_entry"},
      {"no meter", with_([](auto& m) { *m.mutable_table_entry() = test::ipv4(1, 0, 0, 1); }),
       code::invalidArgument, "table ingress.ipv4 has no direct meter"},
      {"default entry", with_([](auto& m) {
         m.mutable_table_entry()->Clear();
         m.mutable_table_entry()->set_table_id(test::kCounted);
         m.mutable_table_entry()->set_is_default_action(true);
       }),
       code::unimplemented, "default entry's direct meter"},
      {"pir below cir", with_([](auto& m) { m.mutable_config()->set_pir(4); }),
       code::invalidArgument, "pir is 4, below the cir of 5"},
      {"negative", with_([](auto& m) { m.mutable_config()->set_pburst(-1); }),
       code::invalidArgument, "pburst is -1"},
      {"excess burst", with_(excess), code::invalidArgument, "eburst is 1"},
      {"burst too long", with_([](auto& m) { m.mutable_config()->set_cburst(1ll << 32); }),
       code::outOfRange, "4294967295"},
      {"colors", with_([](auto& m) { m.mutable_counter_data(); }), code::unimplemented,
       "counter_data"},
      {"through the table entry",
       with(test::exact(test::kCounted, 1), [](auto& e) { e.mutable_meter_config()->set_cir(1); }),
       code::invalidArgument, "table ingress.counted: direct meter: pir is 0"},
  });
  expectCases({{"one rate", with_([](auto&) {}), code::ok, ""},
               {"two rates", with_(twoRates), code::invalidArgument, "single rate"},
               {"excess burst", with_(excess), code::unimplemented, "eburst"}},
              typeIs(MeterSpec::SINGLE_RATE_THREE_COLOR));
  expectCases({{"two rates", with_(twoRates), code::invalidArgument, "single rate"},
               {"excess burst", with_(excess), code::invalidArgument, "takes 0 only"}},
              typeIs(MeterSpec::SINGLE_RATE_TWO_COLOR));
}

}  // namespace
}  // namespace pi::fe::proto
