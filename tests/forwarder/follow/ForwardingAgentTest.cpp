// The forwarding agent, fed by hand: the rows it programs, its refusals and its reports.
#include "forwarder/follow/ForwardingAgent.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarder/control/Commands.h"
#include "forwarder/table/RowText.h"
#include "tests/forwarder/FormerRows.h"
#include "tests/forwarder/Packing.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;
using testing::HasSubstr;
using namespace std::chrono_literals;

struct ReportSent {
  uint64_t sequence = 0;
  uint16_t errorCode = 0;
  std::string message;
};

// Keeps the reports; the test hands the changes out itself.
class FakeSubscriber final : public Lattice::Subscriber {
 public:
  std::vector<ReportSent> reports;
  unsigned flushes = 0;

  void appliesAtOnceIs(bool) override {}
  void follow(std::chrono::milliseconds) override {}
  const std::string& trouble() const override { return trouble_; }
  bool attached() const override { return true; }
  void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
              std::string_view message) override {
    EXPECT_EQ(entryHandle, sequence + 1000);
    reports.push_back({sequence, errorCode, std::string(message)});
  }
  void flush() override { ++flushes; }
  uint64_t sequence() const override { return 0; }
  int descriptor() const override { return -1; }
  void lookForIs(std::chrono::microseconds) override {}

 private:
  std::string trouble_;
};

class ForwardingAgentTest : public testing::Test {
 protected:
  ForwardingAgentTest() { reports_.subscriberIs(&subscriber_); }

  // Changes of the ports table; each returns its sequence number.
  uint64_t write(uint16_t port, const std::string& value) { return change(ports_, port, value); }
  uint64_t write(uint16_t port, uint32_t speed) { return write(port, little(speed, 4)); }
  uint64_t erase(uint16_t port) { return change(ports_, port, {}, true); }
  uint64_t change(const Lattice::FollowedTable& table, uint16_t port, const std::string& value,
                  bool deleted = false) {
    const std::string key = big(port, 2);
    agent_.rowChanged({.table = &table,
                       .key = key,
                       .value = value,
                       .deleted = deleted,
                       .entryHandle = ++sequence_ + 1000,
                       .sequence = sequence_});
    return sequence_;
  }
  ReportSent lastReport() const {
    return subscriber_.reports.empty() ? ReportSent{} : subscriber_.reports.back();
  }
  uint16_t lastCode() const {
    EXPECT_EQ(lastReport().sequence, sequence_) << "no report on the last change";
    return lastReport().errorCode;
  }
  // How a dump shows rows of ports and their speeds.
  static std::string rows(const std::map<int, int>& speeds) {
    std::string text;
    for (const auto& [port, speed] : speeds) {
      text += fmt::format("ports port={:#06x} -> speed={:#010x}\n", port, speed);
    }
    return text;
  }
  std::string held() const {
    const ProgrammedTable* ports = agent_.table("ports");
    return ports ? dumpText(*ports) : "";
  }
  void rule(const char* name, const char* argument) {
    Rules rules = agent_.rules();
    ASSERT_TRUE(applyRule(rules, name, argument));
    agent_.rulesIs(rules);
  }
  Answer command(const char* line) {
    return runCommand(
        {.agent = agent_, .reports = reports_, .attached = true, .sequence = sequence_}, line);
  }
  // The counters of `stats` for a name, e.g. "inserted".
  std::string counter(const std::string& name) {
    const std::string stats = '\n' + command("stats").text;
    const size_t at = stats.find('\n' + name + ' ');
    if (at == stats.npos) return "none of that name";
    const size_t value = at + name.size() + 2;
    return stats.substr(value, stats.find('\n', value) - value);
  }

  ReportQueue::Clock::time_point now_{};
  ReportQueue reports_{[this] { return now_; }};
  ForwardingAgent agent_{reports_};
  FakeSubscriber subscriber_;
  const Lattice::FollowedTable ports_{"ports", typeOf("key port : U16; speed : U32;")};
  uint64_t sequence_ = 0;
};

TEST_F(ForwardingAgentTest, ProgramsChangesAndReportsEachOnce) {
  write(1, 100);
  write(2, 100);
  write(1, 400);
  write(2, 100);
  erase(2);
  erase(2);
  EXPECT_EQ(held(), rows({{1, 400}}));
  ASSERT_EQ(subscriber_.reports.size(), 6u);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(subscriber_.reports[i].sequence, i + 1);
    EXPECT_EQ(subscriber_.reports[i].errorCode, 0);
  }
  EXPECT_EQ(counter("changes"), "6");
  EXPECT_EQ(counter("inserted"), "2");
  EXPECT_EQ(counter("replaced"), "1");
  EXPECT_EQ(counter("unchanged"), "2");
  EXPECT_EQ(counter("deleted"), "1");
}

TEST_F(ForwardingAgentTest, FullTableRefusesInsertsOnly) {
  rule("capacity", "*=9");
  rule("capacity", "ports=2");
  write(1, 100);
  write(2, 100);
  write(3, 100);
  EXPECT_EQ(lastCode(), 1);
  EXPECT_EQ(lastReport().message, "table ports is full: its capacity is 2 rows");
  write(2, 400);
  EXPECT_EQ(lastCode(), 0);
  erase(1);
  write(3, 100);
  EXPECT_EQ(lastCode(), 0);
  EXPECT_EQ(held(), rows({{2, 400}, {3, 100}}));
  EXPECT_EQ(counter("full"), "1");
}

TEST_F(ForwardingAgentTest, FailedWritesKeepTheFormerRowAndTheirRollbackSucceeds) {
  write(1, 100);
  rule("fail-code", "8");
  const std::pair<const char*, const char*> ways[] = {
      {"fail-table", "ports"}, {"fail-key", "ports:port=1"}, {"fail-every", "1"}};
  for (const auto& [name, argument] : ways) {
    SCOPED_TRACE(name);
    rule("clear", "");
    rule(name, argument);
    write(1, 400);
    EXPECT_EQ(lastCode(), 8);
    EXPECT_NE(lastReport().message, "");
    EXPECT_EQ(held(), rows({{1, 100}}));
    write(1, 100);  // the agent puts the former row back
    EXPECT_EQ(lastCode(), 0);
    erase(1);
    EXPECT_EQ(lastCode(), 8);
    EXPECT_EQ(held(), rows({{1, 100}}));
  }
  rule("fail-table", "ports");
  write(2, 100);
  EXPECT_EQ(lastCode(), 8);
  erase(2);  // the agent takes the failed row away
  EXPECT_EQ(lastCode(), 0);
  EXPECT_EQ(held(), rows({{1, 100}}));
}

TEST_F(ForwardingAgentTest, FailsTheKeysAndTheSharesAskedFor) {
  rule("fail-key", "ports:port=2");
  rule("fail-key", "other:port=3");
  for (const auto& [port, code] : {std::pair{1, 0}, {2, 2}, {3, 0}}) {
    write(port, 100);
    EXPECT_EQ(lastCode(), code) << port;
  }
  EXPECT_THAT(subscriber_.reports[1].message, HasSubstr("port=2"));
  rule("clear", "");
  rule("fail-every", "3");
  unsigned failures = 0;
  for (uint16_t port = 10; port < 40; ++port) {
    write(port, 100);
    failures += lastCode() != 0;
  }
  EXPECT_EQ(failures, 10u);
}

TEST_F(ForwardingAgentTest, SnapshotReplacesWhatIsHeld) {
  write(1, 100);
  write(2, 100);
  write(3, 100);
  rule("fail-key", "ports:port=3");
  agent_.snapshotBegin();
  write(2, 100);
  write(3, 400);  // fails: the former row stays
  write(4, 100);
  agent_.snapshotEnd();
  EXPECT_EQ(held(), rows({{2, 100}, {3, 100}, {4, 100}}));
  EXPECT_EQ(counter("snapshots"), "1");
  EXPECT_EQ(counter("swept"), "1");

  agent_.snapshotBegin();
  write(5, 100);
  agent_.snapshotBegin();  // the agent went away under the first
  write(4, 100);
  agent_.snapshotEnd();
  EXPECT_EQ(held(), rows({{4, 100}}));
}

// Rows that the snapshot will show to be gone hold the room of the new ones until its end.
TEST_F(ForwardingAgentTest, RowsThatWereLostAheadOfTheirCommitAreTakenBack) {
  rule("capacity", "ports=3");
  write(1, 100);
  write(2, 100);
  FormerRows lost(sequence_ + 1);
  const auto was = [&](uint16_t port, std::optional<uint32_t> speed) {
    lost.add(ports_, big(port, 2), speed ? std::optional(little(*speed, 4)) : std::nullopt, port);
  };
  write(1, 400);
  was(1, 100);
  erase(2);
  was(2, 100);
  write(3, 100);
  was(3, {});
  write(4, 100);
  was(4, {});
  write(5, 100);  // the table is full
  was(5, {});
  EXPECT_EQ(lastCode(), 1);
  write(3, 400);
  was(3, 100);
  rule("fail-table", "ports");
  const size_t reports = subscriber_.reports.size();
  agent_.aheadLost(lost);
  agent_.rowsEnd();
  EXPECT_EQ(held(), rows({{1, 100}, {2, 100}}));
  EXPECT_EQ(subscriber_.reports.size(), reports) << "nobody wants to hear of it";
}

TEST_F(ForwardingAgentTest, SnapshotFillsATableToItsCapacityAndNoFurther) {
  rule("capacity", "ports=2");
  write(1, 100);
  write(2, 100);
  agent_.snapshotBegin();
  const uint64_t third = write(3, 100);
  const uint64_t fourth = write(4, 100);
  write(2, 100);
  agent_.snapshotEnd();
  EXPECT_EQ(held(), rows({{2, 100}, {3, 100}}));
  ASSERT_EQ(subscriber_.reports.size(), 5u);
  EXPECT_EQ(subscriber_.reports[3].sequence, third);
  EXPECT_EQ(subscriber_.reports[3].errorCode, 0);
  EXPECT_EQ(subscriber_.reports[4].sequence, fourth);
  EXPECT_EQ(subscriber_.reports[4].errorCode, 1);
}

TEST_F(ForwardingAgentTest, UnreadableRowsAreReportedAndDoNotStopTheRest) {
  const Lattice::FollowedTable untyped{"untyped", nullptr};
  write(1, 100);
  change(untyped, 1, "value");
  EXPECT_EQ(lastCode(), 2);
  EXPECT_THAT(lastReport().message, HasSubstr("untyped"));
  write(1, std::string("cut"));
  EXPECT_EQ(lastCode(), 2);
  agent_.rowChanged({.table = &ports_,
                     .key = "k",
                     .value = "v",
                     .entryHandle = 1000 + ++sequence_,
                     .sequence = sequence_});
  EXPECT_EQ(lastCode(), 2);
  EXPECT_EQ(held(), rows({{1, 100}}));
  write(2, 100);
  EXPECT_EQ(lastCode(), 0);
  EXPECT_EQ(counter("unreadable"), "3");
}

TEST_F(ForwardingAgentTest, TablesSurviveAnAgentThatComesBackUnlessTheirTypeChanged) {
  write(1, 100);
  const Lattice::FollowedTable again{"ports", typeOf("key port : U16; speed : U32;")};
  agent_.tableAdded(again);
  EXPECT_EQ(held(), rows({{1, 100}}));
  const Lattice::FollowedTable other{"ports", typeOf("key port : U16; mtu : U32;")};
  agent_.tableAdded(other);
  EXPECT_EQ(held(), "");
  change(other, 1, little(100, 4));
  EXPECT_EQ(held(), "ports port=0x0001 -> mtu=0x00000064\n");
  agent_.tableRemoved(other);
  EXPECT_EQ(agent_.table("ports"), nullptr);
}

TEST_F(ForwardingAgentTest, ATableKeepsItsRowsUnderAnotherType) {
  Lattice::FollowedTable lags{"lags", typeOf("key lag : U16; action { up 1 { speed : U32; } }")};
  agent_.tableAdded(lags);
  change(lags, 1, little(1, 4) + little(100, 4));
  change(lags, 2, little(2, 4));
  EXPECT_EQ(lastCode(), 2) << "it has no such action yet";
  const uint64_t version = agent_.tablesVersion();
  lags.type = typeOf("key lag : U16; action { down 2 { none : Void; } on 1 { speed : U32; } }");
  agent_.tableRetyped(lags);
  EXPECT_NE(agent_.tablesVersion(), version);
  change(lags, 2, little(2, 4));
  EXPECT_EQ(lastCode(), 0);
  EXPECT_EQ(dumpText(*agent_.table("lags")),
            "lags lag=0x0001 -> action=on speed=0x00000064\nlags lag=0x0002 -> action=down\n");
  EXPECT_EQ(counter("inserted"), "2");
}

TEST_F(ForwardingAgentTest, LateReportsKeepTheirOrderAndHoldNothingUp) {
  rule("latency", "100");
  write(1, 100);
  EXPECT_EQ(held(), rows({{1, 100}}));
  now_ += 60ms;
  rule("latency", "0");  // does not overtake
  write(2, 100);
  reports_.sendDue();
  EXPECT_TRUE(subscriber_.reports.empty());
  ASSERT_TRUE(reports_.nextDue());
  now_ = *reports_.nextDue();
  reports_.sendDue();
  ASSERT_EQ(subscriber_.reports.size(), 2u);
  EXPECT_EQ(subscriber_.reports[0].sequence, 1u);
  EXPECT_EQ(subscriber_.flushes, 1u);
  EXPECT_EQ(reports_.nextDue(), std::nullopt);
  write(3, 100);
  EXPECT_EQ(subscriber_.reports.size(), 3u);
}

TEST_F(ForwardingAgentTest, SilenceProgramsButNeverReports) {
  rule("silent", "on");
  write(1, 100);
  rule("silent", "off");
  reports_.sendDue();
  EXPECT_TRUE(subscriber_.reports.empty());
  EXPECT_EQ(held(), rows({{1, 100}}));
  EXPECT_EQ(counter("reports-dropped"), "1");
}

TEST_F(ForwardingAgentTest, CommandsAnswerOrSayWhatIsWrong) {
  write(1, 100);
  const struct {
    const char* line;
    bool ok;
    const char* text;
  } cases[] = {
      {"dump", true, "ports port=0x0001 -> speed=0x00000064\n"},
      {" dump  ports \r", true, "port=0x0001"},
      {"dump nowhere", false, "there are: ports"},
      {"capacity ports=1", true, ""},
      {"stats", true, "table ports rows 1 capacity 1\n"},
      {"rules", true, "capacity ports=1\n"},
      {"fail-key ports:prot=1", false, "table ports has no key column prot"},
      {"fail-key later:any=1", true, ""},
      {"explode", false, "no command 'explode'; try: help"},
      {"help", true, "fail-table TABLE"},
      {"", true, "fail-table TABLE"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const Answer answer = command(c.line);
    EXPECT_EQ(answer.ok, c.ok);
    EXPECT_THAT(answer.text, HasSubstr(c.text));
  }
  write(2, 100);
  EXPECT_EQ(lastCode(), 1);
}

}  // namespace
}  // namespace Forwarder
