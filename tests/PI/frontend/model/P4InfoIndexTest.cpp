// Which P4Infos are refused, and by which words.
#include "PI/frontend/model/P4InfoIndex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "PI/frontend/base/Refusal.h"
#include "tests/PI/frontend/support/TestPipeline.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {
namespace {

using p4::config::v1::P4Info;
using TestSupport::RefusedWith;

TEST(P4InfoIndex, RefusesWhatCannotBeRealised) {
  const struct {
    const char* what;
    std::function<void(P4Info&)> break_;
    const char* says;
  } cases[] = {
      {"id 0", [](P4Info& p) { p.mutable_tables(0)->mutable_preamble()->set_id(0); },
       "table ingress.ipv4 has the id 0"},
      {"an id twice",
       [](P4Info& p) { p.mutable_actions(0)->mutable_preamble()->set_id(test::kIpv4); },
       "action forward has the id 0x02000001 of table ingress.ipv4"},
      {"a role without a name",
       [](P4Info& p) {
         p.mutable_tables(0)->mutable_preamble()->add_annotations("@p4runtime_role ( \"\" )");
       },
       "table ingress.ipv4 has the annotation @p4runtime_role without the name of a role; write "},
      {"a structured annotation of no role",
       [](P4Info& p) {
         auto& preamble = *p.mutable_tables(1)->mutable_preamble();
         preamble.add_structured_annotations()->set_name("p4runtime_role");
       },
       "has the annotation @p4runtime_role without the name of a role"},
      {"an action that is not there",
       [](P4Info& p) { p.mutable_tables(0)->mutable_action_refs(0)->set_id(0x01000099); },
       "table ingress.ipv4 refers to action 0x01000099, which is not there"},
      {"an action that is a table",
       [](P4Info& p) { p.mutable_tables(0)->mutable_action_refs(0)->set_id(test::kAcl); },
       "which is table ingress.acl"},
      {"a profile that is not there",
       [](P4Info& p) { p.mutable_tables(7)->set_implementation_id(0x11000099); },
       "table ingress.wcmp refers to action profile 0x11000099"},
      {"a profile's table that is not there",
       [](P4Info& p) { p.mutable_action_profiles(0)->set_table_ids(0, 5); },
       "action profile ingress.nexthops refers to table"},
      {"a profile's table that names another",
       [](P4Info& p) { p.mutable_tables(7)->set_implementation_id(test::kPlainNexthops); },
       "which names ingress.plain_nexthops as its implementation"},
      {"a negative size", [](P4Info& p) { p.mutable_action_profiles(0)->set_size(-1); },
       "action profile ingress.nexthops: size is -1"},
      {"two counters",
       [](P4Info& p) { p.mutable_tables(3)->set_direct_resource_ids(1, 0x13000001); },
       "table ingress.counted has direct counter ingress.counter and another one"},
      {"a direct meter of a table that is not there",
       [](P4Info& p) { p.mutable_direct_meters(0)->set_direct_table_id(9); },
       "direct meter ingress.meter refers to table"},
      {"a constant default that is not there",
       [](P4Info& p) { p.mutable_tables(4)->set_const_default_action_id(9); },
       "the default of table ingress.const refers to action"},
      {"a default argument too wide",
       [](P4Info& p) {
         p.mutable_tables(0)->mutable_initial_default_action()->mutable_arguments(0)->set_value(
             "\x7f\xff");
       },
       "the default of table ingress.ipv4: argument 1 of forward"},
      {"a field id twice",
       [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(1)->set_id(1); },
       "fields vrf and dst have the same id 1"},
      {"a parameter id twice",
       [](P4Info& p) { p.mutable_actions(0)->mutable_params(1)->set_id(1); },
       "parameters port and dmac have the same id 1"},
      {"a match type nobody knows",
       [](P4Info& p) {
         p.mutable_tables(0)->mutable_match_fields(0)->set_match_type(
             static_cast<p4::config::v1::MatchField::MatchType>(77));
       },
       "field vrf has the unknown match type 77"},
      {"a scope nobody knows",
       [](P4Info& p) {
         p.mutable_tables(0)->mutable_action_refs(0)->set_scope(
             static_cast<p4::config::v1::ActionRef::Scope>(9));
       },
       "uses action forward in the unknown scope 9"},
      {"a negative width",
       [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(0)->set_bitwidth(-1); },
       "vrf is -1 bits wide"},
      {"a width that would fill the memory",
       [](P4Info& p) { p.mutable_actions(0)->mutable_params(0)->set_bitwidth(INT32_MAX); },
       "action forward: port is 2147483647 bits wide"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    P4Info p4Info = test::pipelineConfig().p4info();
    c.break_(p4Info);
    try {
      const P4InfoIndex index(p4Info);
      ADD_FAILURE() << "not refused";
    } catch (const Refusal& refusal) {
      EXPECT_THAT(refusal, RefusedWith(code::invalidArgument, c.says));
    }
  }
}

// The table ties a direct resource to itself; resources but counters and meters are not served.
TEST(P4InfoIndex, TakesDirectResourcesThatAreNotTiedBothWays) {
  P4Info p4Info = test::pipelineConfig().p4info();
  const auto& counted = p4Info.tables(3);
  const uint32_t table = counted.preamble().id();
  p4Info.mutable_direct_counters(0)->set_direct_table_id(0);
  p4Info.mutable_tables(3)->add_direct_resource_ids(0x99000001);
  EXPECT_TRUE(P4InfoIndex(p4Info).table(table)->counter.has_value());
}

// Some compilers leave out the list; the table's own word is enough.
TEST(P4InfoIndex, TakesProfilesThatDoNotListTheirTables) {
  P4Info p4Info = test::pipelineConfig().p4info();
  p4Info.mutable_action_profiles(0)->clear_table_ids();
  const P4InfoIndex index(p4Info);
  EXPECT_EQ(index.table(test::kWcmp)->profile, index.profile(test::kNexthops));
  EXPECT_NE(index.profile(test::kNexthops)->actionUse(test::kForward), nullptr);
}

}  // namespace
}  // namespace pi::fe::proto
