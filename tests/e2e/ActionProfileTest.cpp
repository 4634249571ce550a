// Members, groups and one-shot sets, seen through to the forwarder's tables, on good days and bad.
#include <gtest/gtest.h>

#include <random>

#include "tests/e2e/Load.h"

using namespace TestSupport;

namespace {

class ActionProfiles : public testing::Test {
 protected:
  // Members 1 to 4, of which 4 is in no group; group 10 of some, which an entry names; group 11,
  // which none does; an entry that names a member; a one-shot set; and a rule with a meter.
  void SetUp() override {
    ASSERT_TRUE(tested.start());
    ASSERT_TRUE(tested
                    .write({insertOf(member(1, 7)), insertOf(member(2, 8)), insertOf(member(3, 9)),
                            insertOf(member(4, 9)), insertOf(group(10, {{1, 3}, {2, 1}})),
                            insertOf(group(11, {{2, 2}})), insertOf(wcmp(1).group(10)),
                            insertOf(wcmp(2).member(3)), insertOf(lag(1, 20, 2)), insertOf(rule())})
                    .ok());
    ASSERT_EQ(tested.disagreement(), "");
  }

  p4::v1::ActionProfileMember member(uint32_t id, uint32_t nexthop) {
    return Router::member(tested.pipeline(), id, nexthop);
  }
  p4::v1::ActionProfileGroup group(uint32_t id, const std::map<uint32_t, int>& weights) {
    return Router::group(tested.pipeline(), id, weights);
  }
  EntryOf wcmp(uint32_t i) { return Router::wcmp(tested.pipeline(), i); }
  EntryOf lag(uint32_t i, uint32_t first, uint32_t links) {
    return Router::lag(tested.pipeline(), i, first, links);
  }
  EntryOf rule() { return Router::aclRule(tested.pipeline(), 1).meter(100, 10, 200, 20); }
  p4::v1::DirectMeterEntry meterOfRule(int64_t cir) {
    p4::v1::DirectMeterEntry meter;
    *meter.mutable_table_entry() = Router::aclRule(tested.pipeline(), 1);
    *meter.mutable_config() =
        Router::aclRule(tested.pipeline(), 1).meter(cir, 1, cir, 1).entry().meter_config();
    return meter;
  }
  // The key of the set's first hidden member, as the forwarder has it.
  std::string firstLink() {
    const std::string prefix = "lag_selector.member ";
    return forwarderView(tested.forwarder).lower_bound(prefix)->first.substr(prefix.size());
  }
  void tellForwarder(const std::vector<std::string>& words) {
    const CommandResult told = tested.forwarder.ctl(words);
    ASSERT_EQ(told.exit.code, 0) << told.error;
  }

  Switch tested;
};

TEST_F(ActionProfiles, StandAsTheyWereWhenTheForwarderRefusesAChange) {
  using Words = std::vector<std::string>;
  const Words noMember{"fail-table", "wcmp_selector.member"};
  const Words noGroup{"fail-table", "wcmp_selector.group"};
  const Words noEntry{"fail-table", "wcmp"};
  const Words noLink{"fail-table", "lag_selector.member"};
  const Words noBundle{"fail-table", "lag_selector.group"};
  const Words noLag{"fail-table", "lag"};
  const Words oneLink{"fail-key", "lag_selector.member:" + firstLink()};
  const struct {
    const char* what;
    Words rule;
    p4::v1::Update update;
  } cases[] = {
      {"new member", noMember, insertOf(member(5, 1))},
      {"other action of a member", noMember, modifyOf(member(1, 1))},
      {"member gone", noMember, deleteOf(member(4, 0))},
      {"new group", noGroup, insertOf(group(12, {{1, 1}, {4, 2}}))},
      {"group that grows", noGroup, modifyOf(group(10, {{1, 3}, {2, 1}, {3, 1}}))},
      {"group that shrinks", noGroup, modifyOf(group(10, {{1, 1}}))},
      {"group that changes wholly", noGroup, modifyOf(group(10, {{3, 2}, {4, 1}}))},
      {"group emptied", noGroup, modifyOf(group(10, {}))},
      {"group gone", noGroup, deleteOf(group(11, {}))},
      {"new entry of a group", noEntry, insertOf(wcmp(3).group(11))},
      {"entry that names another", noEntry, modifyOf(wcmp(1).member(1))},
      {"entry gone", noEntry, deleteOf(wcmp(2))},
      {"new set, entry refused", noLag, insertOf(lag(2, 30, 3))},
      {"new set, group refused", noBundle, insertOf(lag(2, 30, 3))},
      {"new set, members refused", noLink, insertOf(lag(2, 30, 3))},
      {"new set with room for one of its members",
       {"capacity", "lag_selector.member=3"},
       insertOf(lag(2, 30, 3))},
      {"set that grows, members refused", noLink, modifyOf(lag(1, 20, 4))},
      {"set that grows, group refused", noBundle, modifyOf(lag(1, 20, 4))},
      {"set that shrinks, group refused", noBundle, modifyOf(lag(1, 20, 1))},
      {"set of other actions, members refused", noLink, modifyOf(lag(1, 40, 2))},
      {"set of other actions, one of them refused", oneLink, modifyOf(lag(1, 40, 3))},
      {"set gone, one member refused", oneLink, deleteOf(lag(1, 0, 0))},
      {"set gone, entry refused", noLag, deleteOf(lag(1, 0, 0))},
      {"set gone, group refused", noBundle, deleteOf(lag(1, 0, 0))},
      {"set gone, members refused", noLink, deleteOf(lag(1, 0, 0))},
      {"meter", {"fail-table", "acl"}, modifyOf(meterOfRule(5))},
  };
  const View before = tested.controllerView();
  const View forwarded = forwarderView(tested.forwarder);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    tellForwarder(c.rule);
    const WriteOutcome outcome = tested.write({c.update});
    const bool full = c.rule[0] == "capacity";
    EXPECT_EQ(outcome.code(0), full ? grpc::RESOURCE_EXHAUSTED : grpc::INTERNAL)
        << testing::PrintToString(outcome);
    EXPECT_EQ(difference("before", before, "after", tested.controllerView()), "");
    EXPECT_EQ(tested.disagreement(), "");
    EXPECT_EQ(difference("before", forwarded, "after", forwarderView(tested.forwarder)), "");
    tellForwarder({"clear"});
    if (full) tellForwarder({"capacity", "lag_selector.member=none"});
    if (HasFatalFailure()) return;
  }
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_EQ(difference("before", before, "restored", tested.controllerView()), "");
  for (const auto& c : cases) {  // and each goes through once it may, or is refused by reason
    SCOPED_TRACE(c.what);
    const grpc::StatusCode code = tested.write({c.update}).code(0);
    EXPECT_TRUE(code == grpc::OK || code == grpc::ALREADY_EXISTS || code == grpc::NOT_FOUND)
        << code;
    EXPECT_EQ(tested.disagreement(), "");
  }
}

TEST_F(ActionProfiles, ComeAndGoInOneWriteInTheOrderTheyDependOnEachOther) {
  const View before = tested.controllerView();
  const auto coming = [&] {
    return std::vector<p4::v1::Update>{insertOf(member(20, 1)), insertOf(member(21, 2)),
                                       insertOf(group(20, {{20, 1}, {21, 5}})),
                                       insertOf(wcmp(20).group(20)), insertOf(wcmp(21).member(21))};
  };
  ASSERT_TRUE(tested.write(coming()).ok());
  EXPECT_EQ(tested.disagreement(), "");
  const WriteOutcome tooEarly = tested.write(
      {deleteOf(member(21, 0)), deleteOf(group(20, {})), deleteOf(wcmp(20)), deleteOf(wcmp(21))});
  EXPECT_EQ(tooEarly.code(0), grpc::FAILED_PRECONDITION);
  EXPECT_EQ(tooEarly.code(1), grpc::FAILED_PRECONDITION);
  EXPECT_EQ(tooEarly.code(2), grpc::OK);
  EXPECT_EQ(tooEarly.code(3), grpc::OK);
  EXPECT_TRUE(
      tested.write({deleteOf(group(20, {})), deleteOf(member(21, 0)), deleteOf(member(20, 0))})
          .ok());
  EXPECT_EQ(difference("before", before, "after", tested.controllerView()), "");

  // An update that depends on a failing one fails with it.
  tellForwarder({"fail-table", "wcmp_selector.member"});
  const WriteOutcome failed = tested.write(coming());
  tellForwarder({"clear"});
  ASSERT_EQ(failed.errors.size(), 5u) << testing::PrintToString(failed);
  EXPECT_EQ(failed.code(0), grpc::INTERNAL);
  EXPECT_EQ(failed.code(2), grpc::NOT_FOUND);
  EXPECT_EQ(failed.code(3), grpc::NOT_FOUND);
  EXPECT_EQ(difference("before", before, "after", tested.controllerView()), "");
  EXPECT_EQ(tested.disagreement(), "");
}

// The same with everything at once, and a table that fails at random.
TEST(EverythingAtOnce, IsLeftAloneByUpdatesThatFailBesideOthers) {
  const char* tables[] = {"ipv4_route",           "acl", "wcmp",
                          "wcmp_selector.member", "lag", "wcmp_selector.group",
                          "lag_selector.member",  "-",   "lag_selector.group"};
  Switch tested;
  ASSERT_TRUE(tested.start());
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  Load load(tested, seed);
  size_t failed = 0;
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const std::string table = tables[random() % std::size(tables)];
    if (table != "-") {
      ASSERT_EQ(tested.forwarder.ctl({"fail-table", table}).exit.code, 0);
    }
    const WriteOutcome outcome = load.writeOnce();
    ASSERT_EQ(tested.forwarder.ctl({"clear"}).exit.code, 0);
    failed += outcome.errors.size();
    for (size_t i = 0; i < outcome.errors.size(); ++i) {
      EXPECT_TRUE(outcome.code(i) == grpc::OK || outcome.code(i) == grpc::INTERNAL)
          << outcome.errors[i].message();
    }
    if (round % 25 == 24) {
      ASSERT_TRUE(tested.restartAgent());
    }
    ASSERT_EQ(load.broken(), "");
    ASSERT_EQ(tested.disagreement(), "");
  }
  EXPECT_GT(failed, 100u);
}

}  // namespace
