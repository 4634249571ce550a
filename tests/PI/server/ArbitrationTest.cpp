// The primary of a role, and the notices of it: the rules one by one and as stories.
#include "PI/server/Arbitration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pi::server {
namespace {

using grpc::StatusCode;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::nullopt_t kNone = std::nullopt;

std::optional<ElectionId> eid(uint64_t low, uint64_t high = 0) {
  return ElectionId{.high = high, .low = low};
}

class ArbitrationTest : public testing::Test {
 protected:
  // A controller's stream; notices of all controllers land in one log, in their order.
  class Controller : public ArbitrationClient {
   public:
    Controller(ArbitrationTest& test, std::string name, RoleOfDevice role = {1, ""})
        : test_(test), name_(std::move(name)), role_(std::move(role)) {}
    ~Controller() override { disconnect(); }

    StatusCode arbitrate(std::optional<ElectionId> id) {
      return test_.arbitration_.clientIs(*this, role_, id).error_code();
    }
    StatusCode arbitrateAs(const RoleOfDevice& role, std::optional<ElectionId> id) {
      return test_.arbitration_.clientIs(*this, role, id).error_code();
    }
    void disconnect() { test_.arbitration_.clientDel(*this); }
    bool isPrimary() const { return test_.arbitration_.isPrimary(*this); }

    void arbitrationNoticeIs(const ArbitrationNotice& notice) override {
      const char* const code = notice.code == StatusCode::OK               ? "OK"
                               : notice.code == StatusCode::ALREADY_EXISTS ? "ALREADY_EXISTS"
                               : notice.code == StatusCode::NOT_FOUND      ? "NOT_FOUND"
                                                                           : "?";
      test_.log_.push_back(
          name_ + ": " + code +
          (notice.highest ? ", " + std::to_string(notice.highest->low) : ", unset"));
    }
    const std::string& identity() const override { return name_; }
    const StreamOrigin& origin() const override { return origin_; }
    void displaced(const std::string&) override { test_.log_.push_back(name_ + ": displaced"); }

   private:
    ArbitrationTest& test_;
    const std::string name_;
    const RoleOfDevice role_;
    const StreamOrigin origin_{.address = "from " + name_, .opened = WallTime()};
  };

  // The notices since the last look.
  std::vector<std::string> notices() { return std::exchange(log_, {}); }

  // A Write that begins now; it runs as long as the result lives.
  Arbitration::WritePermit write(std::optional<ElectionId> id, StatusCode expected,
                                 const RoleOfDevice& role = {1, ""}) {
    Arbitration::WritePermit permit;
    EXPECT_EQ(arbitration_.writePermit(role, id, &permit).error_code(), expected);
    return permit;
  }
  std::string refusal(std::optional<ElectionId> id, const RoleOfDevice& role = {1, ""}) {
    return arbitration_.requirePrimary(role, id).error_message();
  }

  Arbitration arbitration_;
  std::vector<std::string> log_;
};

TEST_F(ArbitrationTest, TheStandardsWorkedExample) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  Controller c(*this, "C");
  Controller d(*this, "D");
  EXPECT_EQ(a.arbitrate(eid(10)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("A: OK, 10"));
  EXPECT_EQ(b.arbitrate(eid(5)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("B: ALREADY_EXISTS, 10"));
  EXPECT_EQ(b.arbitrate(eid(11)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("A: ALREADY_EXISTS, 11", "B: OK, 11"));
  write(eid(10), StatusCode::PERMISSION_DENIED);
  b.disconnect();
  EXPECT_THAT(notices(), ElementsAre("A: NOT_FOUND, 11"));
  EXPECT_EQ(a.arbitrate(eid(10)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("A: NOT_FOUND, 11"));
  EXPECT_EQ(c.arbitrate(eid(10)), StatusCode::INVALID_ARGUMENT);
  c.disconnect();
  EXPECT_THAT(notices(), IsEmpty());
  EXPECT_EQ(d.arbitrate(kNone), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("D: NOT_FOUND, 11"));
  EXPECT_EQ(a.arbitrate(eid(11)), StatusCode::OK);
  EXPECT_THAT(notices(), UnorderedElementsAre("A: OK, 11", "D: ALREADY_EXISTS, 11"));
  EXPECT_EQ(a.arbitrate(eid(11)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("D: ALREADY_EXISTS, 11", "A: OK, 11"));
  EXPECT_EQ(a.arbitrate(kNone), StatusCode::OK);
  EXPECT_THAT(notices(), UnorderedElementsAre("A: NOT_FOUND, 11", "D: NOT_FOUND, 11"));
}

TEST_F(ArbitrationTest, ElectionIdsCompareAsUnsigned128BitNumbers) {
  const struct {
    const char* what;
    ElectionId first;
    ElectionId second;
    bool secondWins;
  } cases[] = {
      {"high counts before low", {1, 0}, {0, ~0ull}, false},
      {"low decides among equal highs", {1, 5}, {1, 6}, true},
      {"unsigned", {0, 1ull << 63}, {0, 1}, false},
      {"unsigned in high", {1ull << 63, 0}, {1, 0}, false},
      {"zero is the lowest", {0, 0}, {0, 1}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const RoleOfDevice role{1, c.what};
    Controller first(*this, "first", role);
    Controller second(*this, "second", role);
    first.arbitrate(c.first);
    EXPECT_TRUE(first.isPrimary());
    second.arbitrate(c.second);
    EXPECT_EQ(second.isPrimary(), c.secondWins);
    EXPECT_NE(first.isPrimary(), second.isPrimary());
  }
}

TEST_F(ArbitrationTest, AnAbsentElectionIdIsNoZero) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  Controller c(*this, "C");
  a.arbitrate(kNone);
  b.arbitrate(kNone);  // any number may have none
  EXPECT_THAT(notices(), ElementsAre("A: NOT_FOUND, unset", "B: NOT_FOUND, unset"));
  write(kNone, StatusCode::PERMISSION_DENIED);
  a.arbitrate(eid(0));
  EXPECT_TRUE(a.isPrimary());
  EXPECT_EQ(c.arbitrate(eid(0)), StatusCode::INVALID_ARGUMENT);
  write(kNone, StatusCode::PERMISSION_DENIED);
  write(eid(0), StatusCode::OK);
}

TEST_F(ArbitrationTest, ABackupThatLeavesOrChangesConcernsNobodyElse) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  a.arbitrate(eid(10));
  b.arbitrate(eid(5));
  notices();
  b.arbitrate(eid(6));
  EXPECT_THAT(notices(), ElementsAre("B: ALREADY_EXISTS, 10"));
  b.disconnect();
  EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(ArbitrationTest, BackupBelowHighestElectionIdDoesNotInherit) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  a.arbitrate(eid(7));
  b.arbitrate(eid(5));
  notices();
  a.disconnect();
  EXPECT_THAT(notices(), ElementsAre("B: NOT_FOUND, 7"));
  b.arbitrate(eid(6));
  EXPECT_FALSE(b.isPrimary());
  write(eid(7), StatusCode::PERMISSION_DENIED);  // the id of a primary that has gone
}

TEST_F(ArbitrationTest, HighestElectionIdOutlivesAllClientsAndEqualitySuffices) {
  {
    Controller a(*this, "A");
    a.arbitrate(eid(7));
  }
  Controller b(*this, "B");
  b.arbitrate(eid(6));
  EXPECT_FALSE(b.isPrimary());
  b.arbitrate(eid(7));
  EXPECT_TRUE(b.isPrimary());
}

TEST_F(ArbitrationTest, AnIdIsFreeAgainOnceItsHolderTookAnotherOrHasGone) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  a.arbitrate(eid(5));
  a.arbitrate(eid(6));
  EXPECT_EQ(b.arbitrate(eid(5)), StatusCode::OK);
  EXPECT_EQ(a.arbitrate(eid(5)), StatusCode::INVALID_ARGUMENT);
  b.disconnect();
  EXPECT_EQ(a.arbitrate(eid(5)), StatusCode::OK);
}

TEST_F(ArbitrationTest, APrimaryWhoseUpdateIsRefusedLeavesLikeAnyOther) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  a.arbitrate(eid(10));
  b.arbitrate(eid(5));
  notices();
  EXPECT_EQ(a.arbitrate(eid(5)), StatusCode::INVALID_ARGUMENT);
  a.disconnect();
  EXPECT_THAT(notices(), ElementsAre("B: NOT_FOUND, 10"));
}

TEST_F(ArbitrationTest, AStreamKeepsItsDeviceAndRole) {
  Controller a(*this, "A", {1, "routing"});
  a.arbitrate(eid(1));
  EXPECT_EQ(a.arbitrateAs({2, "routing"}, eid(1)), StatusCode::FAILED_PRECONDITION);
  EXPECT_EQ(a.arbitrateAs({1, ""}, eid(1)), StatusCode::FAILED_PRECONDITION);
  EXPECT_TRUE(a.isPrimary());  // until its stream ends
}

TEST_F(ArbitrationTest, RolesAndDevicesAreIndependent) {
  Controller a(*this, "A", {1, ""});
  Controller b(*this, "B", {1, "routing"});
  Controller c(*this, "C", {2, ""});
  a.arbitrate(eid(5));
  b.arbitrate(eid(5));
  c.arbitrate(eid(5));
  EXPECT_TRUE(a.isPrimary() && b.isPrimary() && c.isPrimary());
  write(eid(5), StatusCode::OK, {1, "routing"});
  write(eid(5), StatusCode::NOT_FOUND, {1, "switching"});
  std::vector<ArbitrationClient*> primaries;
  arbitration_.forEachPrimary(
      1, [&](ArbitrationClient& client, const RoleConfig*) { primaries.push_back(&client); });
  EXPECT_THAT(primaries, UnorderedElementsAre(&a, &b));
}

// As monitoring sees them.
TEST_F(ArbitrationTest, TellsItsControllersAndRoles) {
  const auto controllers = [&](size_t most) {
    std::vector<std::string> told;
    for (const ControllerView& one : arbitration_.controllers(most).controllers) {
      EXPECT_EQ(one.origin.address, "from " + one.identity);
      told.push_back(one.identity + "@" + one.role.role +
                     (one.electionId ? " " + std::to_string(one.electionId->low) : " none") +
                     (one.primarySince ? " primary" : ""));
    }
    return told;
  };
  const auto roles = [&](size_t most) {
    std::vector<std::string> told;
    for (const RoleView& one : arbitration_.roles(most).roles) {
      told.push_back(one.role.role + " " + std::to_string(one.clients) +
                     (one.hasPrimary ? " primary" : ""));
    }
    return told;
  };
  EXPECT_THAT(controllers(10), IsEmpty());
  Controller a(*this, "A", {1, ""});
  Controller b(*this, "B", {1, ""});
  Controller c(*this, "C", {1, "routing"});
  Controller d(*this, "D", {1, "routing"});
  a.arbitrate(eid(5));
  b.arbitrate(eid(7));
  c.arbitrate(kNone);
  EXPECT_THAT(controllers(10), ElementsAre("B@ 7 primary", "A@ 5", "C@routing none"));
  d.arbitrate(eid(1));
  EXPECT_THAT(controllers(10),
              ElementsAre("B@ 7 primary", "D@routing 1 primary", "A@ 5", "C@routing none"));
  EXPECT_THAT(controllers(2), ElementsAre("B@ 7 primary", "D@routing 1 primary"));
  EXPECT_THAT(controllers(0), IsEmpty());
  EXPECT_EQ(arbitration_.controllers(0).all, 4u);
  EXPECT_THAT(roles(10), ElementsAre(" 2 primary", "routing 2 primary"));
  EXPECT_THAT(roles(1), ElementsAre(" 2 primary"));
  d.disconnect();
  c.disconnect();
  EXPECT_THAT(roles(10), ElementsAre(" 2 primary", "routing 0")) << "its election id is remembered";
  EXPECT_EQ(arbitration_.roles(1).all, 2u);
  arbitration_.forgetHighest();
  EXPECT_THAT(roles(10), ElementsAre(" 2 primary"));
}

TEST_F(ArbitrationTest, BeingPrimaryBeginsWithAnElectionThatIsWon) {
  Controller a(*this, "A");
  Controller b(*this, "B");
  const auto since = [&] {
    return arbitration_.controllers(1).controllers.at(0).primarySince.value();
  };
  const auto before = std::chrono::system_clock::now();
  a.arbitrate(eid(5));
  const auto first = since();
  EXPECT_GE(first, before);
  a.arbitrate(eid(6));
  EXPECT_EQ(since(), first) << "it was the primary all along";
  b.arbitrate(eid(7));
  EXPECT_GT(since(), first);
}

TEST_F(ArbitrationTest, RefusalsSayWhoIsPrimary) {
  EXPECT_EQ(refusal(eid(7)),
            "not primary: election id 7 of role '' on device 1; there is no primary");
  Controller a(*this, "A");
  a.arbitrate(eid(10));
  EXPECT_EQ(refusal(eid(7)),
            "not primary: election id 7 of role '' on device 1; the primary has 10");
  EXPECT_THAT(refusal(kNone), HasSubstr("no election id of role ''"));
  EXPECT_THAT(refusal(eid(2, 1)), HasSubstr("{high: 1, low: 2}"));
  a.disconnect();
  EXPECT_THAT(refusal(eid(10)), HasSubstr("there is no primary; an arbitration update with 10"));
  EXPECT_THAT(refusal(eid(1), {1, "x"}), HasSubstr("unknown role 'x' on device 1"));
}

TEST_F(ArbitrationTest, StreamsAndRolesAreLimited) {
  Arbitration small({.clientsOfRole = 2, .roles = 1});
  Controller a(*this, "A");
  Controller b(*this, "B");
  Controller c(*this, "C");
  EXPECT_TRUE(small.clientIs(a, {1, ""}, kNone).ok());
  EXPECT_TRUE(small.clientIs(b, {1, ""}, kNone).ok());
  EXPECT_EQ(small.clientIs(c, {1, ""}, kNone).error_code(), StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_TRUE(small.clientIs(c, {1, "x"}, kNone).ok());
  small.clientDel(b);
  EXPECT_EQ(small.clientIs(b, {1, "y"}, kNone).error_code(), StatusCode::RESOURCE_EXHAUSTED);
  small.clientDel(c);  // a role without primary goes with its last client
  EXPECT_TRUE(small.clientIs(b, {1, "y"}, kNone).ok());
  small.clientDel(a);
  small.clientDel(b);
}

// 256 silent streams once locked the real controller out of its role.
TEST_F(ArbitrationTest, AHigherElectionIdTakesTheLowestBackupsPlace) {
  arbitration_.limitsAre({.clientsOfRole = 3, .clients = 4});
  Controller primary(*this, "primary");
  Controller silent(*this, "silent");
  Controller low(*this, "low");
  Controller late(*this, "late");
  Controller later(*this, "later");
  primary.arbitrate(eid(1));
  silent.arbitrate(kNone);
  low.arbitrate(eid(0));
  notices();
  EXPECT_EQ(late.arbitrate(kNone), StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(late.arbitrate(eid(2)), StatusCode::OK);
  EXPECT_THAT(notices(), UnorderedElementsAre("silent: displaced", "primary: ALREADY_EXISTS, 2",
                                              "low: ALREADY_EXISTS, 2", "late: OK, 2"));
  EXPECT_EQ(later.arbitrate(eid(3)), StatusCode::OK);
  EXPECT_THAT(notices(), testing::Contains("low: displaced"));

  // All places are taken: only a new primary of its role gets one, and never another primary's.
  Controller other(*this, "other", {1, "x"});
  Controller another(*this, "another", {1, "y"});
  EXPECT_EQ(other.arbitrate(kNone), StatusCode::OK);
  EXPECT_EQ(another.arbitrate(kNone), StatusCode::RESOURCE_EXHAUSTED);
  notices();
  EXPECT_EQ(another.arbitrate(eid(1)), StatusCode::OK);
  EXPECT_THAT(notices(), ElementsAre("primary: displaced", "another: OK, 1"));
  EXPECT_TRUE(later.isPrimary());
}

// The highest ids that a switch keeps on its disk, as it were.
struct KeptIds {
  std::map<std::string, uint64_t> ids;
  std::vector<std::string>* log = nullptr;
  ElectionIdKeeper keeper() {
    return {.save =
                [this](const RoleOfDevice& role, ElectionId id) {
                  ids[role.role] = id.low;
                  log->push_back("saved " + role.role + std::to_string(id.low));
                },
            .forget = [this](const RoleOfDevice& role) { ids.erase(role.role); }};
  }
};

TEST_F(ArbitrationTest, HighestElectionIdsAreKeptBeforeAnyoneHearsOfThem) {
  KeptIds kept{.log = &log_};
  arbitration_.keeperIs(kept.keeper());
  Controller a(*this, "A");
  Controller b(*this, "B");
  a.arbitrate(eid(7));
  EXPECT_THAT(notices(), ElementsAre("saved 7", "A: OK, 7"));
  a.arbitrate(eid(7));
  b.arbitrate(eid(6));
  b.arbitrate(eid(7));  // refused
  EXPECT_THAT(notices(), ElementsAre("A: OK, 7", "B: ALREADY_EXISTS, 7"));

  // The next process.
  Arbitration next;
  for (const auto& [role, id] : kept.ids) next.highestIs({1, role}, {.high = 0, .low = id});
  Controller stale(*this, "stale");
  EXPECT_TRUE(next.clientIs(stale, {1, ""}, eid(6)).ok());
  EXPECT_TRUE(next.clientIs(b, {1, ""}, eid(7)).ok());
  EXPECT_THAT(notices(),
              ElementsAre("stale: NOT_FOUND, 7", "stale: ALREADY_EXISTS, 7", "B: OK, 7"));
  next.clientDel(stale);
  next.clientDel(b);
}

// Roles without number once stayed for good, and shut new ones out.
TEST_F(ArbitrationTest, TheRoleThatWasLeftFirstMakesRoomButTheDefaultRoleStays) {
  KeptIds kept{.log = &log_};
  arbitration_.keeperIs(kept.keeper());
  arbitration_.limitsAre({.roles = 2});
  const auto visit = [&](const std::string& role, uint64_t deviceId = 1) {
    Controller guest(*this, "guest", {deviceId, role});
    return guest.arbitrate(eid(5));
  };
  visit("");
  {
    Controller primary(*this, "primary");
    primary.arbitrate(eid(5));
    write(eid(5), StatusCode::OK);
  }
  Controller stays(*this, "stays", {1, "a"});
  stays.arbitrate(eid(5));
  for (const char* const role : {"b", "c", "d"}) EXPECT_EQ(visit(role), StatusCode::OK) << role;
  for (uint64_t device = 2; device < 200; ++device) EXPECT_EQ(visit("", device), StatusCode::OK);
  EXPECT_THAT(kept.ids, testing::Contains(testing::Key("a")));
  EXPECT_THAT(kept.ids, testing::Not(testing::Contains(testing::Key("b"))));
  EXPECT_THAT(refusal(eid(4)), HasSubstr("update with 5 or higher"));

  EXPECT_EQ(visit(std::string(257, 'x')), StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(visit(std::string(256, 'x')), StatusCode::OK);
  EXPECT_LT(refusal(eid(5), {1, std::string(100'000, 'x')}).size(), 500u);
}

// While Writes of the former primary run, nobody's are taken.
class HandOverTest : public ArbitrationTest {
 protected:
  HandOverTest() {
    a_.arbitrate(eid(10));
    b_.arbitrate(eid(5));
    running_ = write(eid(10), StatusCode::OK);
    notices();
  }
  void writeEnds() { running_ = {}; }

  Controller a_{*this, "A"};
  Controller b_{*this, "B"};
  Controller c_{*this, "C"};
  Arbitration::WritePermit running_;
};

TEST_F(HandOverTest, NewPrimaryIsInstalledOnceTheOldOnesWritesAreDone) {
  Arbitration::WritePermit second = write(eid(10), StatusCode::OK);
  b_.arbitrate(eid(11));
  EXPECT_THAT(notices(), ElementsAre("A: ALREADY_EXISTS, 11"));
  write(eid(10), StatusCode::PERMISSION_DENIED);
  write(eid(11), StatusCode::PERMISSION_DENIED);
  EXPECT_FALSE(a_.isPrimary() || b_.isPrimary());
  writeEnds();
  EXPECT_THAT(notices(), IsEmpty());
  second = {};
  EXPECT_THAT(notices(), ElementsAre("B: OK, 11"));
  write(eid(11), StatusCode::OK);
  write(eid(10), StatusCode::PERMISSION_DENIED);
}

TEST_F(HandOverTest, APrimaryThatRepeatsItsIdWaitsForItsOwnWrites) {
  a_.arbitrate(eid(10));
  EXPECT_THAT(notices(), ElementsAre("B: ALREADY_EXISTS, 10"));
  write(eid(10), StatusCode::PERMISSION_DENIED);
  EXPECT_TRUE(a_.isPrimary());  // packets do not wait
  writeEnds();
  EXPECT_THAT(notices(), ElementsAre("A: OK, 10"));
  write(eid(10), StatusCode::OK);
}

TEST_F(HandOverTest, WritesOfAPrimaryThatHasGoneStillHoldUpTheNext) {
  a_.disconnect();
  EXPECT_THAT(notices(), ElementsAre("B: NOT_FOUND, 10"));
  b_.arbitrate(eid(11));
  EXPECT_THAT(notices(), IsEmpty());
  writeEnds();
  EXPECT_THAT(notices(), ElementsAre("B: OK, 11"));
}

TEST_F(HandOverTest, AHigherOneOvertakesTheOneThatWaits) {
  b_.arbitrate(eid(11));
  c_.arbitrate(eid(12));
  EXPECT_THAT(notices(), UnorderedElementsAre("A: ALREADY_EXISTS, 11", "A: ALREADY_EXISTS, 12",
                                              "B: ALREADY_EXISTS, 12"));
  writeEnds();
  EXPECT_THAT(notices(), ElementsAre("C: OK, 12"));
}

TEST_F(HandOverTest, TheOneThatWaitsMayLeaveOrStepDown) {
  for (const bool leaves : {true, false}) {
    SCOPED_TRACE(leaves);
    Controller waiting(*this, "W");
    waiting.arbitrate(eid(leaves ? 11 : 12));
    notices();
    leaves ? waiting.disconnect() : (void)waiting.arbitrate(kNone);
    EXPECT_THAT(notices(), testing::Contains(HasSubstr("A: NOT_FOUND")));
  }
  writeEnds();
  EXPECT_THAT(notices(), IsEmpty());
  write(eid(12), StatusCode::PERMISSION_DENIED);
}

}  // namespace
}  // namespace pi::server
