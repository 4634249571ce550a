// The history of an entry, from records of many callers.
#include "cli/journal/History.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/journal/EntryPattern.h"
#include "cli/journal/ProfilePattern.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/P4InfoLookup.h"
#include "tests/cli/journal/Calls.h"
#include "tests/support/Pipeline.h"

namespace Cli {
namespace {

using namespace std::string_literals;
using Journal::Draft;
using Journal::RecordKind;
using p4::v1::Update;
using testing::HasSubstr;
using testing::SizeIs;
using TestSupport::EntryOf;

const TestSupport::Pipeline& router() {
  static const TestSupport::Pipeline pipeline(KORVEL_ROUTER_PIPELINE);
  return pipeline;
}

p4::v1::TableEntry route(uint32_t net, uint32_t nexthop) {
  return EntryOf(router(), "ipv4_route")
      .exact("vrf_id", 1)
      .lpm("ipv4_dst", net, 24)
      .action("set_nexthop", {{"nexthop_id", nexthop}});
}

p4::v1::WriteRequest writeOf(std::vector<std::pair<Update::Type, p4::v1::TableEntry>> updates) {
  p4::v1::WriteRequest request;
  request.mutable_election_id()->set_low(7);
  for (const auto& [type, entry] : updates) {
    Update& update = *request.add_updates();
    update.set_type(type);
    *update.mutable_entity()->mutable_table_entry() = entry;
  }
  return request;
}

class HistoryTest : public testing::Test {
 protected:
  std::vector<HistoryEvent> historyOf(const EntityPattern& pattern, size_t most = 100) const {
    History history(pattern, index_, most);
    for (const std::string& bytes : calls.records) history.add(*Journal::recordAt(bytes));
    history.end();
    return {history.events().begin(), history.events().end()};
  }
  EntryPattern pattern(const std::string& table, const std::vector<std::string>& words) const {
    return EntryPattern(index_.tableNamed(table), words);
  }
  std::vector<HistoryEvent> why(const std::string& table,
                                const std::vector<std::string>& words) const {
    return historyOf(pattern(table, words));
  }

  const Pipeline::P4InfoLookup index_{router().p4info()};
  Calls calls;
};

TEST_F(HistoryTest, IsOfAllCallersInTheirOrder) {
  calls.add(Draft::start());
  calls.add("a", writeOf({{Update::INSERT, route(0x0a000000, 1)},
                          {Update::INSERT, route(0x0a000100, 1)}}));
  calls.add(
      "b",
      writeOf({{Update::INSERT, route(0x0a000200, 1)}, {Update::MODIFY, route(0x0a000100, 2)}}),
      Journal::Outcome{.code = 2, .message = "1 failed", .failures = {{0, 6, "there is one"}}});
  auto other = writeOf({{Update::MODIFY, route(0x0a000100, 3)}});
  other.set_role("acl");
  other.clear_election_id();
  calls.add("c", other,
            Journal::Outcome{.code = 2, .message = "HW says no", .failures = {{0, 8, ""}}});
  calls.add("", writeOf({{Update::DELETE, route(0x0a000100, 0)}}),
            Journal::Outcome{.code = 14, .message = "no forwarding agent"});
  calls.add("d", writeOf({{Update::DELETE, route(0x0a000100, 0)}}), std::nullopt);
  const auto events = why("ipv4_route", {"vrf_id=1", "ipv4_dst=10.0.1.0/24"});
  ASSERT_THAT(events, SizeIs(5));
  EXPECT_EQ(eventText(events[0]),
            "1970-01-01T00:00:02.000000Z  INSERT  vrf_id=1 ipv4_dst=10.0.1.0/24 -> "
            "ingress.set_nexthop nexthop_id=1\n"
            "    by a ipv4:192.0.2.1:5, role default, election id 7, update 2 of 2\n"
            "    OK, 1000000 us\n");
  EXPECT_THAT(eventText(events[1]), HasSubstr("by b "));
  EXPECT_THAT(eventText(events[1]), HasSubstr("    OK, ")) << "another one failed";
  EXPECT_THAT(eventText(events[2]), HasSubstr("by c ipv4:192.0.2.1:5, role acl, update 1 of 1"));
  EXPECT_THAT(eventText(events[2]), HasSubstr("RESOURCE_EXHAUSTED, 1000000 us: HW says no"));
  EXPECT_THAT(eventText(events[3]), HasSubstr("by anybody"));
  EXPECT_THAT(eventText(events[3]), HasSubstr("UNAVAILABLE, 1000000 us: no forwarding agent"));
  EXPECT_THAT(eventText(events[4]), HasSubstr("no outcome is known"));
  EXPECT_THAT(why("ipv4_route", {"ipv4_dst=10.0.2.0/24"})[0].message, "there is one");
  EXPECT_THAT(why("ipv4_route", {}), SizeIs(7));
  EXPECT_THAT(historyOf(pattern("ipv4_route", {}), 2), SizeIs(2));
}

TEST_F(HistoryTest, FindsEntriesHoweverTheirKeysAreWritten) {
  auto padded = route(0x0a000100, 1);
  padded.mutable_match(0)->mutable_exact()->set_value("\0\1"s);
  calls.add("a", writeOf({{Update::INSERT, padded}}));
  p4::v1::TableEntry any = route(0, 2);
  any.mutable_match()->RemoveLast();
  calls.add("a", writeOf({{Update::INSERT, any}}));
  p4::v1::TableEntry rule = EntryOf(router(), "acl")
                                .ternary("src_ip", 0x0a000000, 0xff000000)
                                .ternary("l4_dst_port", 22, 0xffff)
                                .priority(5)
                                .action("acl_drop");
  calls.add("a", writeOf({{Update::INSERT, rule}}));
  p4::v1::TableEntry set = EntryOf(router(), "ipv4_route").action("drop");
  set.set_is_default_action(true);
  calls.add("a", writeOf({{Update::MODIFY, set}}));
  const struct {
    const char* what;
    const char* table;
    std::vector<std::string> words;
    size_t found;
  } cases[] = {
      {"a prefix", "ipv4_route", {"ipv4_dst=10.0.1.0/24"}, 1},
      {"another length", "ipv4_route", {"ipv4_dst=10.0.1.0/25"}, 0},
      {"the address alone", "ipv4_route", {"ipv4_dst=10.0.1.0"}, 0},
      {"in hexadecimal", "ipv4_route", {"ipv4_dst=0x0a000100/24", "vrf_id=0x1"}, 1},
      {"another field differs", "ipv4_route", {"ipv4_dst=10.0.1.0/24", "vrf_id=2"}, 0},
      {"by full name", "ingress.ipv4_route", {"vrf_id=1"}, 2},
      {"a mask", "acl", {"src_ip=10.0.0.0&&&255.0.0.0"}, 1},
      {"the same as a prefix", "acl", {"src_ip=10.0.0.0/8"}, 1},
      {"a full mask", "acl", {"l4_dst_port=22"}, 1},
      {"another mask", "acl", {"src_ip=10.0.0.0"}, 0},
      {"bits outside the mask", "acl", {"src_ip=10.1.2.3/8"}, 1},
      {"a host of the prefix", "ipv4_route", {"ipv4_dst=10.0.1.7/24"}, 1},
      {"a mask of nothing", "acl", {"dst_ip=0x0&&&0x0", "l4_dst_port=22"}, 1},
      {"any value, where one is given", "acl", {"src_ip=0.0.0.0/0"}, 0},
      {"a prefix that is left out", "ipv4_route", {"ipv4_dst=0.0.0.0/0", "vrf_id=1"}, 1},
      {"the default entry among all", "ipv4_route", {}, 3},
      {"a field left out", "acl", {"dst_ip=*", "l4_dst_port=22"}, 1},
      {"a field not left out", "acl", {"src_ip=*"}, 0},
      {"another table", "lag", {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT(why(c.table, c.words), SizeIs(c.found));
  }
  EXPECT_EQ(why("acl", {})[0].key, "src_ip=10.0.0.0&&&0xff000000 l4_dst_port=22 priority=5");
  EntryPattern ofPriority = pattern("acl", {});
  ofPriority.priorityIs(6);
  EXPECT_THAT(historyOf(ofPriority), SizeIs(0));
  EntryPattern ofDefault = pattern("ipv4_route", {});
  ofDefault.isDefaultIs(true);
  ASSERT_THAT(historyOf(ofDefault), SizeIs(1));
  EXPECT_THAT(eventText(historyOf(ofDefault)[0]), HasSubstr("default entry -> ingress.drop"));
}

TEST_F(HistoryTest, IsAlsoThatOfMembersAndGroups) {
  p4::v1::WriteRequest request;
  const auto add = [&](const p4::v1::Entity& entity) {
    Update& update = *request.add_updates();
    update.set_type(Update::INSERT);
    *update.mutable_entity() = entity;
  };
  p4::v1::Entity member, group, other;
  *member.mutable_action_profile_member() =
      TestSupport::memberOf(router(), "wcmp_selector", 3, "set_nexthop", {{"nexthop_id", 7}});
  *group.mutable_action_profile_group() =
      TestSupport::groupOf(router(), "wcmp_selector", 3, {{3, 2}, {4, 1}});
  *other.mutable_action_profile_group() = TestSupport::groupOf(router(), "lag_selector", 3);
  for (const auto& entity : {member, group, other}) add(entity);
  calls.add("a", request);
  const auto ofProfile = [&](const std::vector<std::string>& words) {
    return historyOf(ProfilePattern(router().profile("wcmp_selector"), words));
  };
  EXPECT_THAT(ofProfile({}), SizeIs(2));
  EXPECT_THAT(ofProfile({"member=4"}), SizeIs(0));
  ASSERT_THAT(ofProfile({"member=3"}), SizeIs(1));
  ASSERT_THAT(ofProfile({"group=3"}), SizeIs(1));
  EXPECT_THAT(eventText(ofProfile({"member=3"})[0]),
              HasSubstr("INSERT  member 3 -> ingress.set_nexthop nexthop_id=7\n"));
  EXPECT_THAT(eventText(ofProfile({"group=3"})[0]),
              HasSubstr("INSERT  group 3 -> members 3 @2, 4 @1\n"));
  for (const char* word : {"member", "member=", "member=x", "group=3 4", "port=3"}) {
    EXPECT_THROW(ofProfile({word}), Pipeline::PipelineError) << word;
  }
  EXPECT_THROW(ofProfile({"member=3", "group=3"}), Pipeline::PipelineError);
}

TEST_F(HistoryTest, RefusesKeysThatCannotBe) {
  const struct {
    const char* word;
    const char* message;
  } cases[] = {
      {"ipv4_dst", "\"ipv4_dst\" is no FIELD=VALUE"},
      {"ipv4_dts=10.0.0.0/8", "did you mean \"ipv4_dst\""},
      {"ipv4_dst=10.0.0.0/33", "match field \"ipv4_dst\": prefix length"},
      {"vrf_id=70000", "does not fit"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    try {
      pattern("ipv4_route", {c.word});
      ADD_FAILURE();
    } catch (const Pipeline::PipelineError& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.message));
    }
  }
}

TEST_F(HistoryTest, ShowsWhatMayHaveChangedAllEntries) {
  p4::v1::SetForwardingPipelineConfigRequest push;
  push.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY);
  calls.add("a", push, Journal::Outcome{}, RecordKind::push);
  push.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  calls.add("a", push, Journal::Outcome{}, RecordKind::push);
  calls.add(Draft::gap({5, Journal::GapReason::queueFull}));
  calls.add(Draft::start({.isFromEmpty = true}));
  calls.add(Draft::start({.isLacking = true}));
  const auto events = why("ipv4_route", {});
  ASSERT_THAT(events, SizeIs(4));
  EXPECT_THAT(eventText(events[2]), HasSubstr("the switch began empty"));
  EXPECT_THAT(eventText(events[3]), HasSubstr("WRITES BEFORE MAY BE MISSING"));
  EXPECT_THAT(eventText(events[0]), HasSubstr("pipeline pushed, VERIFY_AND_COMMIT\n    by a "));
  EXPECT_THAT(eventText(events[1]), HasSubstr("5 RECORDS ARE MISSING: they came faster than"));
}

// It is verified while Writes go on.
TEST_F(HistoryTest, APushStandsWhereItTookEffect) {
  p4::v1::SetForwardingPipelineConfigRequest push;
  push.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  const uint64_t pushed = calls.add("a", push, std::nullopt, RecordKind::push);
  calls.add("a", writeOf({{Update::INSERT, route(0x0a000100, 1)}}));
  const uint64_t installed = calls.add("agent", push, Journal::Outcome{}, RecordKind::pipeline);
  calls.add("a", writeOf({{Update::INSERT, route(0x0a000100, 2)}}));
  calls.add(Draft::outcome({.request = pushed}));
  calls.add("a", push, std::nullopt, RecordKind::push);  // and the agent is killed
  const auto events = why("ipv4_route", {});
  ASSERT_THAT(events, SizeIs(4));
  EXPECT_THAT(events[0].action, HasSubstr("nexthop_id=1"));
  EXPECT_EQ(events[1].sequence, pushed);
  EXPECT_EQ(events[1].time, Journal::Time(std::chrono::seconds(installed)));
  EXPECT_TRUE(events[1].ended);
  EXPECT_THAT(events[2].action, HasSubstr("nexthop_id=2"));
  EXPECT_FALSE(events[3].ended);
}

// Journals of other programs may hold anything in the place of a message.
TEST_F(HistoryTest, PassesOverBytesThatAreNoRequest) {
  const std::string_view junk = "\xff\xff\xff";
  calls.add(Draft::request(RecordKind::write, "a", "b", {&junk, 1}));
  calls.add(Draft::request(RecordKind::push, "a", "b", {&junk, 1}));
  EXPECT_THAT(why("ipv4_route", {}), SizeIs(0));
}

}  // namespace
}  // namespace Cli
