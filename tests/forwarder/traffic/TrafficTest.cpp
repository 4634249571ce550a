// Synthetic packets against rows written by hand: their hits, and the counts of these.
#include "forwarder/traffic/Traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarder/base/Answer.h"
#include "forwarder/traffic/TrafficCommand.h"
#include "tests/forwarder/AgentFixture.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::ThrowsMessage;

class TrafficTest : public AgentFixture {
 protected:
  void command(const std::string& words) {
    ASSERT_NO_THROW(runTrafficCommand(traffic_, words)) << words;
  }
  TableTraffic counts(const char* name) { return traffic_.stats().tables.at(name); }

  Traffic::Clock::time_point now_{};
  Traffic traffic_{agent_, [this] { return now_; }};
};

TEST_F(TrafficTest, DrawnPacketsHitTheTablesTheyAreDrawnFrom) {
  route("10.0.0.0", 8, 1);
  route("10.1.0.0", 16, 2);
  route("2001:db8::", 32, 3);
  traffic_.send(3000);
  EXPECT_EQ(counts("route").hits, 3000u);
  for (const uint64_t handle : {1, 2, 3}) EXPECT_NEAR(flow("route", handle).packets, 1000, 200);
  EXPECT_EQ(flow("route", 1).bytes, 64 * flow("route", 1).packets);
  // Under the mask the address is that of the row; look-up decides between the rows.
  const std::string any(4, '\0');
  write(acl(), any + any + '\6' + big(5, 4), little(0, 1) + counter(), 11);
  write(acl(), any + any + '\6' + big(9, 4), little(0, 1) + counter(), 12);
  command("reset");
  traffic_.send(1000);
  EXPECT_EQ(flow("acl", 11).packets, 0u);
  EXPECT_EQ(flow("acl", 12).packets, counts("acl").hits);
  EXPECT_EQ(counts("acl").misses, 0u);
  EXPECT_EQ(counts("acl").hits + counts("route").hits, 1000u);
}

TEST_F(TrafficTest, GivenHeadersAreTakenInTurnAndMeetTheTablesThatLookAtThem) {
  route("10.1.0.0", 16, 1);
  route("10.2.0.0", 16, 2);
  write(acl(), std::string("\x0a\2\0\0\xff\xff\0\0", 8) + '\6' + big(1, 4),
        little(0, 1) + counter(), 3);
  command("header dst=10.1.2.3,vrf=1");
  command("header vrf=0x0001,dst=0x0a020000,proto=6");
  command("header proto=17");
  command("header vrf=65536,dst=10.1.2.3");  // fits no table's column
  command("header color=3");                 // no table looks at it
  command("bytes 100");
  traffic_.send(50);
  EXPECT_EQ(flow("route", 1).packets, 10u);
  EXPECT_EQ(flow("route", 2).packets, 10u);
  EXPECT_EQ(flow("route", 2).bytes, 1000u);
  EXPECT_EQ(flow("acl", 3).packets, 10u);
  EXPECT_EQ(counts("route").misses, 0u);
  EXPECT_EQ(traffic_.stats().packets, 50u);
  EXPECT_THAT(runTrafficCommand(traffic_, ""),
              HasSubstr("header proto=17\nheader vrf=65536,dst=10.1.2.3\n"
                        "header color=3 (no table matches on such a field)\n"));
}

TEST_F(TrafficTest, ARowCountsFromItsColumnsOnAndAsLongAsItsHandleStays) {
  command("header vrf=1,dst=10.0.0.1");
  const std::string written = counter({{5000, 50}});
  const struct {
    const char* what;
    std::function<void()> change;
    uint64_t handle, packets;
  } cases[] = {
      {"nothing given", [&] { route("10.0.0.0", 8, 1); }, 1, 1},
      {"given from the start", [&] { route("10.0.0.0", 8, 2, written); }, 2, 51},
      {"another action", [&] { route("10.0.0.0", 8, 2, written, 0); }, 2, 52},
      {"written again as it is", [&] { route("10.0.0.0", 8, 2, written, 0); }, 2, 53},
      {"nothing given any more", [&] { route("10.0.0.0", 8, 2); }, 2, 54},
      {"given under way",
       [&] {
         route("10.0.0.0", 8, 2, counter({{0, 0}}));
       },
       2, 1},
      {"another entry, same row",
       [&] {
         route("10.0.0.0", 8, 3, counter({{0, 0}}));
       },
       3, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    c.change();
    traffic_.send(1);
    EXPECT_EQ(flow("route", c.handle).packets, c.packets);
  }
}

TEST_F(TrafficTest, RowsKeepTheirFlowsAsOthersLeave) {
  for (uint8_t i = 1; i <= 20; ++i) {
    route(("10." + std::to_string(i) + ".0.0").c_str(), 16, i, counter({{i, i}}));
  }
  for (uint8_t i = 1; i <= 20; i += 2) {
    erase(routes(), big(1, 2) + prefix(("10." + std::to_string(i) + ".0.0").c_str(), 16));
  }
  for (uint8_t i = 1; i <= 20; ++i) {
    EXPECT_EQ(flow("route", i).packets, i % 2 ? 0 : i);
  }
  traffic_.send(1000);
  EXPECT_EQ(counts("route").hits, 1000u);
}

class ProfileTrafficTest : public TrafficTest {
 protected:
  void member(uint32_t id) {
    write(table("ecmp.member", "key member_id : U32; action { out 7 { port : U16; } }"), big(id, 4),
          little(7, 4) + little(id, 2), id);
  }
  void group(uint32_t id, const std::vector<uint32_t>& members) {
    std::string value = little(members.size(), 4);
    for (const uint32_t one : members) value += little(one, 4);
    write(table("ecmp.group", "key group_id : U32; member_id : U32[];"), big(id, 4), value, id);
  }
  void entry(uint16_t dst, uint32_t id, bool isGroup) {
    write(table("balanced", "key dst : U16; indirect_id : U32; is_group : U8; counter;"),
          big(dst, 2), little(id, 4) + little(isGroup, 1) + counter(), 100 + dst);
  }
  std::string state() { return runTrafficCommand(traffic_, ""); }
};

TEST_F(ProfileTrafficTest, SpreadsOverAGroupByTheWeightsOfItsMembers) {
  member(3);
  member(4);
  group(2, {3, 3, 4});
  entry(1, 2, true);
  entry(2, 4, false);
  command("header dst=1");
  traffic_.send(3000);
  using Key = TrafficStats::MemberKey;
  const auto& members = traffic_.stats().members;
  EXPECT_NEAR(members.at(Key{.group = 2, .member = 3}), 2000, 150);
  EXPECT_NEAR(members.at(Key{.group = 2, .member = 4}), 1000, 150);
  command("header none");
  command("reset");
  command("header dst=2");
  traffic_.send(10);
  EXPECT_THAT(state(), HasSubstr("member 4 hits 10\n"));
  EXPECT_THAT(state(), Not(HasSubstr("ecmp")));  // packets do not meet those tables
  EXPECT_EQ(flow("balanced", 102).packets, 10u);
}

TEST_F(ProfileTrafficTest, SaysWhichReferenceLeadsNowhere) {
  const struct {
    const char* what;
    std::function<void()> change;
    const char* shown;
  } cases[] = {
      {"no group", [&] { entry(1, 2, true); }, "dangling group 2, met in table balanced, is not"},
      {"an empty group", [&] { group(2, {}); }, "hits 10 misses 0 empty-group 10\n"},
      {"no member", [&] { group(2, {5}); }, "dangling member 5, met in table balanced, is not"},
      {"no direct member", [&] { entry(1, 9, false); }, "dangling member 9, met"},
      {"all there", [&] { member(9); }, "table balanced hits 10 misses 0\nmember 9 hits 10\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    c.change();
    command("reset");
    traffic_.send(10);
    EXPECT_THAT(state(), HasSubstr(c.shown));
  }
}

TEST_F(TrafficTest, KeepsTheRateAndLeavesOutWhatItCannotCatchUpOn) {
  command("1000");
  EXPECT_EQ(traffic_.nextDue(), now_ + 1ms);
  for (int i = 0; i < 1000; ++i) {
    now_ += 1ms;
    traffic_.work(200us);
  }
  EXPECT_EQ(traffic_.stats().packets, 1000u);
  EXPECT_EQ(traffic_.pace().achievedRate(), 1000u);
  EXPECT_FALSE(traffic_.pace().behind());
  now_ += 10s;
  traffic_.work(200us);
  EXPECT_NEAR(traffic_.stats().packets, 1100, 1);
  EXPECT_NEAR(traffic_.stats().skipped, 9900, 1);
  EXPECT_TRUE(traffic_.pace().behind());
  command("off");
  now_ += 1s;
  traffic_.work(200us);
  EXPECT_NEAR(traffic_.stats().packets, 1100, 1);
  EXPECT_EQ(traffic_.nextDue(), std::nullopt);
}

TEST_F(TrafficTest, TheSameSeedDrawsTheSamePackets) {
  std::vector<uint64_t> first;
  for (const char* seed : {"seed 7", "seed 8", "seed 7"}) {
    ForwardingAgent agent(reports_);
    const Lattice::FollowedTable& followed = routes();
    agent.tableAdded(followed);
    for (uint64_t i = 1; i <= 100; ++i) {
      const std::string key = big(1, 2) + prefix(("10." + std::to_string(i) + ".0.0").c_str(), 16);
      agent.rowChanged(
          {.table = &followed, .key = key, .value = little(8, 4) + counter(), .entryHandle = i});
    }
    Traffic traffic(agent);
    runTrafficCommand(traffic, seed);
    traffic.send(500);
    std::vector<uint64_t> hits;
    agent.table("route")->rows()->forEach([&](const StoredRow& row) {
      hits.push_back(agent.table("route")->rows()->flow(row)->packets);
    });
    if (first.empty()) first = hits;
    EXPECT_EQ(hits == first, std::string(seed) == "seed 7");
  }
}

TEST_F(TrafficTest, WordsThatMakeNoSenseAreRefusedAndChangeNothing) {
  for (const char* words :
       {"often", "-1", "1.5", "1000000001", "header", "header dst", "header =1",
        "header dst=", "header dst=10.1.2", "header dst=0x", "header dst=0xg1", "header dst=1,",
        "header dst=1 2", "header dst=00:11:22:33:44", "header dst=99999999999999999999", "bytes 0",
        "bytes 65536", "seed x", "off now"}) {
    SCOPED_TRACE(words);
    EXPECT_THAT([&] { runTrafficCommand(traffic_, words); },
                ThrowsMessage<CommandError>(HasSubstr("traffic")));
    EXPECT_EQ(traffic_.options().rate, 0u);
    EXPECT_TRUE(traffic_.options().headers.empty());
  }
}

}  // namespace
}  // namespace Forwarder
