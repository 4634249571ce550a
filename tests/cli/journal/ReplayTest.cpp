// What a journal tells another switch to do, from records in every order that agents write them.
#include "cli/journal/ReplaySteps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "tests/cli/journal/Calls.h"
#include "tests/support/TempDir.h"

namespace Cli {
namespace {

using Journal::Draft;
using Journal::Outcome;
using Journal::RecordKind;
using p4::v1::Update;
using p4::v1::WriteRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using Push = p4::v1::SetForwardingPipelineConfigRequest;

constexpr uint32_t grpcUnavailable = 14;

// A Write of entries of the tables, which stand for what the entries are.
WriteRequest writeOf(const std::vector<uint32_t>& tables) {
  WriteRequest request;
  for (const uint32_t table : tables) {
    request.add_updates()->mutable_entity()->mutable_table_entry()->set_table_id(table);
  }
  return request;
}

Push pushOf(Push::Action action, const std::string& program) {
  Push push;
  push.set_device_id(3);
  push.set_action(action);
  push.mutable_config()->set_p4_device_config(program);
  return push;
}

class ReplayTest : public testing::Test {
 protected:
  // "1 2" for a Write of those tables, "push P" for a push.
  std::vector<std::string> replayed(uint64_t from = 0) { return replayed(from, {}); }
  std::vector<std::string> replayed(const Survey& survey) {
    return replayed(survey.from, survey.latePushes);
  }
  std::vector<std::string> replayed(uint64_t from, const std::map<uint64_t, uint64_t>& late) {
    ReplaySteps steps(from, defaultOpenBytes, late);
    std::vector<std::string> words;
    const auto take = [&] {
      while (const auto step = steps.next()) {
        std::string word = step->push ? "push " + step->push->config().p4_device_config() : "";
        for (const Update& update : step->write.updates()) {
          word +=
              (word.empty() ? "" : " ") + std::to_string(update.entity().table_entry().table_id());
        }
        words.push_back(word);
      }
    };
    for (const std::string& bytes : calls.records) {
      steps.add(*Journal::recordAt(bytes));
      take();
    }
    steps.end();
    take();
    failed = steps.failed();
    unknown = steps.unknown();
    return words;
  }
  Survey survey() const {
    const TestSupport::TempDir directory;
    std::ofstream file(directory.file("journal-000001.kj"), std::ios::binary);
    file << Journal::fileMark;
    for (const std::string& bytes : calls.records) file << bytes;
    file.close();
    return surveyOf(Journal::Reader(Journal::filesIn(directory.path())));
  }

  Calls calls;
  uint64_t failed = 0;
  uint64_t unknown = 0;
};

TEST_F(ReplayTest, HasTheUpdatesThatSucceeded) {
  calls.add("a", writeOf({1, 2, 3}));
  calls.add("a", writeOf({4, 5, 6, 7}), Outcome{.code = 2, .failures = {{0, 6, ""}, {2, 5, ""}}});
  calls.add("a", writeOf({8, 9}), Outcome{.code = 2, .failures = {{0, 6, ""}, {1, 10, ""}}});
  calls.add("a", writeOf({10}), Outcome{.code = 14});
  EXPECT_THAT(replayed(), ElementsAre("1 2 3", "5 7"));
  EXPECT_EQ(failed, 5u);
  EXPECT_EQ(unknown, 0u);
}

// Writes run one after another, and their threads tell of the outcomes when they come to it.
TEST_F(ReplayTest, KeepsTheOrderOfTheRequestsWhateverThatOfTheOutcomes) {
  const uint64_t first = calls.add("a", writeOf({1}), std::nullopt);
  const uint64_t second = calls.add("b", writeOf({2}), std::nullopt);
  const uint64_t third = calls.add("c", writeOf({3}), std::nullopt);
  calls.add(Draft::outcome({.request = third}));
  calls.add(Draft::outcome({.request = first}));
  calls.add(Draft::gap({1, Journal::GapReason::queueFull}));
  calls.add(Draft::outcome({.request = second}));
  EXPECT_THAT(replayed(), ElementsAre("1", "2", "3"));
}

TEST_F(ReplayTest, LeavesOutCallsWhoseOutcomeNobodyKnows) {
  calls.add("a", writeOf({1}), std::nullopt);
  calls.add("a", writeOf({2}));
  calls.add(Draft::start());  // the agent had been killed
  calls.add("a", writeOf({3}));
  calls.add("a", writeOf({4}), std::nullopt);
  const std::string_view junk = "\xff\xff\xff";
  calls.add("a", junk, Outcome{}, RecordKind::write);
  EXPECT_THAT(replayed(), ElementsAre("2", "3"));
  EXPECT_EQ(unknown, 3u);
}

// One lost outcome must not keep all later requests in memory.
TEST_F(ReplayTest, GivesUpTheOldestCallWhenTooMuchWaitsBehindIt) {
  ReplaySteps steps(0, 1000);
  calls.add("a", writeOf({1}), std::nullopt);
  for (uint32_t i = 0; i < 1000; ++i) calls.add("a", writeOf({i}));
  size_t taken = 0;
  for (const std::string& bytes : calls.records) {
    steps.add(*Journal::recordAt(bytes));
    while (steps.next()) ++taken;
  }
  EXPECT_EQ(taken, 1000u);
  EXPECT_EQ(steps.unknown(), 1u);
}

TEST_F(ReplayTest, PassesOverPipelinesThatNeverRan) {
  calls.add("a", pushOf(Push::VERIFY, "checked"), Outcome{}, RecordKind::push);
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "refused"), Outcome{.code = 3},
            RecordKind::push);
  calls.add("a", writeOf({1}));
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "taken"), Outcome{}, RecordKind::push);
  calls.add("a", writeOf({2}));
  EXPECT_THAT(replayed(), ElementsAre("1", "push taken", "2"));
}

TEST_F(ReplayTest, BeginsWithTheLastPushThatClearedTheSwitch) {
  calls.add(Draft::start());
  calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "configured"), Outcome{},
            RecordKind::pipeline);
  calls.add("a", writeOf({1}));
  calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "changed"), Outcome{}, RecordKind::pipeline);
  Survey found = survey();
  EXPECT_TRUE(found.isWhole);
  EXPECT_EQ(found.from, 0u);
  EXPECT_EQ(found.deviceId, 3u);
  EXPECT_EQ(found.pipeline->p4_device_config(), "changed");
  EXPECT_THAT(replayed(found.from), ElementsAre("1"));

  calls.add(Draft::gap({7, Journal::GapReason::noRoom}));
  EXPECT_EQ(survey().lost, 7u);
  calls.add("a", pushOf(Push::VERIFY_AND_SAVE, "saved"), Outcome{}, RecordKind::push);
  calls.add("a", pushOf(Push::COMMIT, ""), Outcome{}, RecordKind::push);
  calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "own form"), Outcome{}, RecordKind::pipeline);
  calls.add("a", writeOf({2}));
  calls.add("a", pushOf(Push::VERIFY_AND_COMMIT, "refused"), Outcome{.code = 3}, RecordKind::push);
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "kept"), Outcome{}, RecordKind::push);
  found = survey();
  EXPECT_EQ(found.pipeline->p4_device_config(), "saved");
  EXPECT_EQ(found.lost, 0u) << "of what is cleared";
  EXPECT_THAT(replayed(found.from), ElementsAre("2", "push kept"));
}

// It is verified while Writes go on, which it clears then.
TEST_F(ReplayTest, APushTakesEffectWhereTheAgentInstallsIt) {
  for (const Push::Action action : {Push::VERIFY_AND_COMMIT, Push::RECONCILE_AND_COMMIT}) {
    const uint64_t pushed = calls.add("a", pushOf(action, "new"), std::nullopt, RecordKind::push);
    calls.add("a", writeOf({1}));
    calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "new"), Outcome{}, RecordKind::pipeline);
    const uint64_t next = calls.add("a", writeOf({2}), std::nullopt);
    calls.add(Draft::outcome({.request = pushed}));
    calls.add(Draft::outcome({.request = next}));
  }
  EXPECT_THAT(replayed(survey().from), ElementsAre("2", "1", "push new", "2"));
}

// The agent answers UNAVAILABLE after a minute, and goes on.
TEST_F(ReplayTest, APushThatComesUpAfterItsAnswerTookEffect) {
  const Outcome late{.code = grpcUnavailable};
  const auto installed = [&](const std::string& program) {
    calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, program), Outcome{}, RecordKind::pipeline);
  };
  calls.add(Draft::start());
  installed("former");
  calls.add("a", writeOf({1}));
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "next"), late, RecordKind::push);
  calls.add("a", writeOf({2}));
  installed("next");
  calls.add("a", writeOf({3}));
  EXPECT_THAT(replayed(survey()), ElementsAre("1", "2", "push next", "3"));

  // It ran, and the forwarding plane had not said yet that it executes it.
  const uint64_t executed =
      calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "other"), std::nullopt, RecordKind::push);
  installed("other");
  calls.add("a", writeOf({4}));
  calls.add(Draft::outcome({.request = executed, .code = grpcUnavailable}));
  EXPECT_THAT(replayed(survey()), ElementsAre("1", "2", "push next", "3", "push other", "4"));

  // Another pipeline took the place of the one; the other was refused, since the agent was busy.
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "lost"), late, RecordKind::push);
  const uint64_t winner =
      calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "winner"), std::nullopt, RecordKind::push);
  calls.add("a", pushOf(Push::RECONCILE_AND_COMMIT, "refused"), late, RecordKind::push);
  installed("winner");
  calls.add(Draft::outcome({.request = winner}));
  EXPECT_THAT(replayed(survey()),
              ElementsAre("1", "2", "push next", "3", "push other", "4", "push winner"));

  // One that clears the switch.
  calls.add("a", pushOf(Push::VERIFY_AND_SAVE, "saved"), Outcome{}, RecordKind::push);
  calls.add("a", pushOf(Push::COMMIT, ""), late, RecordKind::push);
  calls.add("a", writeOf({5}));
  installed("saved");
  calls.add("a", writeOf({6}));
  const Survey found = survey();
  EXPECT_EQ(found.pipeline->p4_device_config(), "saved");
  EXPECT_THAT(replayed(found), ElementsAre("6"));
}

TEST_F(ReplayTest, BeginsWithTheLastStartWithoutEntries) {
  calls.add(Draft::start({.isLacking = true}));
  calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "former"), Outcome{}, RecordKind::pipeline);
  calls.add("a", writeOf({1}));
  EXPECT_TRUE(survey().isLacking);
  calls.add(Draft::start());
  EXPECT_THAT(replayed(survey().from), ElementsAre("1")) << "the entries are still there";
  calls.add(Draft::start({.isFromEmpty = true}));
  calls.add("agent", pushOf(Push::VERIFY_AND_COMMIT, "next"), Outcome{}, RecordKind::pipeline);
  calls.add("a", writeOf({2}));
  const Survey found = survey();
  EXPECT_FALSE(found.isLacking);
  EXPECT_EQ(found.pipeline->p4_device_config(), "next");
  EXPECT_THAT(replayed(found.from), ElementsAre("2"));
}

TEST_F(ReplayTest, KnowsAJournalThatBeginsLater) {
  calls.add("a", writeOf({1}));
  calls.records.erase(calls.records.begin());
  EXPECT_FALSE(survey().isWhole);
  EXPECT_FALSE(survey().pipeline);
  EXPECT_THAT(replayed(), IsEmpty()) << "an outcome without its request";
}

}  // namespace
}  // namespace Cli
