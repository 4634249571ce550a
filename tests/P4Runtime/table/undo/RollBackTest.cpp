// Whatever fails is as if it had never been asked for: row, record, handle, and the forwarding
// agent's table.
#include "P4Runtime/table/failures/EntryFailures.h"
#include "PI/pi_extensions.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

class RollBackTest : public AgentTest {
 protected:
  // An entry as it is in every place that knows of it.
  void expectStands(const Entry& entry, uint64_t handle) {
    EXPECT_EQ(agent().handleOf(entry), handle);
    const auto record = agent().record(entry.table, handle);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->entryState, EntryState::stable);
    EXPECT_EQ(std::string(record->actionData.begin(), record->actionData.end()), entry.data);
    EXPECT_EQ(record->controllerMetadata, entry.controllerMetadata);
    EXPECT_EQ(agent().tableImpl->cachedMetadata(record->key), entry.metadata);
    const std::string port{entry.data[1], entry.data[0]};
    ASSERT_NE(agent().row("exact"), nullptr);
    EXPECT_EQ(*agent().row("exact"), bytes("01000001") + port);
    forwarder().programAll();
    ASSERT_EQ(forwarder().rows().size(), 1u);
    EXPECT_EQ(forwarder().rows().begin()->second, bytes("01000001") + port);
    EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
  }
  Entry described(Entry entry, const char* text) {
    entry.metadata = text;
    entry.controllerMetadata = entry.data[1];
    return entry;
  }

  const Entry old_ = described(exactEntry(1, 5), "old");
  const Entry changed_ = described(exactEntry(1, 6), "changed");
};

TEST_F(RollBackTest, FailedAddLeavesNothing) {
  agent().begin();
  agent().add(0, old_);
  agent().add(1, exactEntry(2));
  agent().end();
  forwarder().failNext(ErrorCode::tableFull, "no room in the chip");
  forwarder().programNext();
  const auto left = agent().outcome();
  ASSERT_THAT(left, ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED)));
  EXPECT_EQ(left[0].second.message(), "no room in the chip");
  EXPECT_EQ(agent().handleOf(old_), 0u);
  EXPECT_EQ(agent().metadataCount(), 0u);
  EXPECT_EQ(agent().recordCount(), 1u);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  ASSERT_EQ(forwarder().pending(), 1u) << "the undoing is a change of its own";
  EXPECT_TRUE(forwarder().next().deleted);
  EXPECT_THAT(agent().frontEnd.settled,
              ElementsAre(testing::Pair(agent().lastHandle, 0u), testing::Pair(testing::_, 13u)));
}

TEST_F(RollBackTest, FailedChangeLeavesTheOldEntry) {
  const uint64_t handle = agent().program(old_);
  agent().begin();
  agent().add(0, changed_);
  agent().end();
  EXPECT_EQ(agent().lastHandle, handle);
  EXPECT_EQ(agent().record(exactTable, handle)->entryState, EntryState::pendingToBeAdded);
  forwarder().failNext(ErrorCode::hardwareError);
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, INTERNAL)));
  expectStands(old_, handle);
}

TEST_F(RollBackTest, FailedDeleteLeavesTheEntry) {
  const uint64_t handle = agent().program(old_);
  agent().begin();
  agent().del(0, old_);
  agent().end();
  EXPECT_EQ(agent().record(exactTable, handle)->entryState, EntryState::pendingToBeDeleted);
  EXPECT_TRUE(agent().handles->entryHandleToResourceIdHas(handle)) << "until the outcome is known";
  forwarder().failNext(ErrorCode::notReady);
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, UNAVAILABLE)));
  expectStands(old_, handle);
}

TEST_F(RollBackTest, TimedOutBatchIsUndoneAndTheSwitchIsCritical) {
  const uint64_t handle = agent().program(old_);
  agent().begin();
  agent().add(0, changed_);
  agent().add(1, exactEntry(2));
  agent().del(2, exactEntry(7));  // refused: it is not there
  agent().end();
  forwarder().ignoreNext();
  forwarder().programNext();  // in time, though the batch as a whole is not
  const auto left = agent().outcome();
  ASSERT_THAT(left, ElementsAre(FailedWith(0, DEADLINE_EXCEEDED), FailedWith(2, INVALID_ARGUMENT)));
  EXPECT_EQ(left[0].second.message(),
            "Hardware programming for table id:33554433 could not be verified");
  EXPECT_TRUE(agent().status->critical());
  EXPECT_EQ(agent().rowCount(exactTable), 2u);
  agent().tableImpl->revertCriticalState();
  agent().remove(exactEntry(2));
  expectStands(old_, handle);
}

TEST_F(RollBackTest, ReportAfterTheTimeOutChangesNothing) {
  agent().begin();
  agent().add(0, old_);
  agent().end();
  const RowChange late = forwarder().next();
  forwarder().ignoreNext();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, DEADLINE_EXCEEDED)));
  expectEmpty(exactTable);
  forwarder().report(late, ErrorCode::none);
  agent().tableImpl->revertCriticalState();

  const uint64_t handle = agent().program(old_);  // another batch, the same key
  forwarder().report(late, ErrorCode::hardwareError);
  EXPECT_GT(handle, late.entryHandle);
  expectStands(old_, handle);
  EXPECT_EQ(agent().tableImpl->failures()->failedEntries(), 0u);
}

TEST_F(RollBackTest, WritesOfOneEntryInABatchShareOneFate) {
  const struct {
    const char* what;
    bool existed;
    bool deletesFirst;
    bool deletesLast;
    bool fails;
  } cases[] = {
      {"add, change", false, false, false, false},
      {"add, change, both fail", false, false, false, true},
      {"change twice", true, false, false, false},
      {"change twice, fails", true, false, false, true},
      {"delete, add", true, true, false, false},
      {"delete, add, fails", true, true, false, true},
      {"add, delete", false, false, true, false},
      {"add, delete, fails", false, false, true, true},
      {"change, delete, fails", true, false, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const uint64_t handle = c.existed ? agent().program(old_) : 0;
    agent().begin();
    const Entry first = exactEntry(1, 66);
    EXPECT_EQ(c.deletesFirst ? agent().del(0, first) : agent().add(0, first), PI_STATUS_SUCCESS);
    EXPECT_EQ(c.deletesLast ? agent().del(3, changed_) : agent().add(3, changed_),
              PI_STATUS_SUCCESS);
    EXPECT_EQ(agent().tableImpl->numPendingEntries(), 1u);
    agent().end();
    ASSERT_EQ(forwarder().pending(), 1u) << "one change of one row";
    if (c.fails) {
      forwarder().failNext(ErrorCode::hardwareError);
      EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, INTERNAL), FailedWith(3, INTERNAL)));
    } else {
      forwarder().programNext();
      EXPECT_THAT(agent().outcome(), IsEmpty());
    }
    const bool remains = c.fails ? c.existed : !c.deletesLast;
    if (remains) expectStands(c.fails ? old_ : changed_, agent().handleOf(old_));
    EXPECT_TRUE(!c.existed || !remains || agent().handleOf(old_) == handle);
    if (remains) agent().remove(old_);
    forwarder().programAll();
    expectEmpty(exactTable);
  }
  EXPECT_FALSE(agent().status->critical());
}

// As when the agent is killed before it knows whether the batch stands.
TEST_F(RollBackTest, WholeBatchWithoutAnOutcomeIsUndoneByTheNextAgent) {
  const uint64_t handle = agent().program(old_);
  const uint64_t gone = agent().program(exactEntry(7));
  for (const bool isWhole : {true, false}) {
    SCOPED_TRACE(isWhole);
    pi_batch_fate_set(isWhole ? PI_BATCH_WHOLE : PI_BATCH_SINGLE);
    agent().begin();
    agent().add(0, changed_);
    agent().add(1, exactEntry(2));
    agent().del(2, exactEntry(7));
    agent().end();
    EXPECT_EQ(agent().rowCount(exactTable), 2u);
    pi_batch_fate_set(PI_BATCH_SINGLE);
    start();
    agent().tableImpl->restoreCachedEntries();
    EXPECT_EQ(agent().handleOf(exactEntry(7)), isWhole ? gone : 0);
    EXPECT_EQ(agent().handleOf(exactEntry(2)) == 0, isWhole);
    EXPECT_EQ(agent().handleOf(old_), handle);
    const auto record = agent().record(exactTable, handle);
    ASSERT_TRUE(record);
    EXPECT_EQ(std::string(record->actionData.begin(), record->actionData.end()),
              isWhole ? old_.data : changed_.data);
    EXPECT_EQ(agent().tableImpl->cachedMetadata(record->key), isWhole ? "old" : "changed");
  }
}

TEST_F(RollBackTest, WholeBatchThatIsGivenUpLeavesNothingToProgram) {
  const uint64_t handle = agent().program(old_);
  pi_batch_fate_set(PI_BATCH_WHOLE);
  agent().begin();
  pi_batch_failed_set(0);
  agent().add(0, changed_);
  agent().add(1, exactEntry(2));
  pi_batch_failed_set(1);
  agent().end();
  EXPECT_EQ(forwarder().pending(), 0u);
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, ABORTED), FailedWith(1, ABORTED)));
  pi_batch_fate_set(PI_BATCH_SINGLE);
  pi_batch_failed_set(0);
  expectStands(old_, handle);
}

// A record that is not confirmed yet when its entry is changed is no reason to forget the entry.
TEST_F(RollBackTest, FailedChangeOfAnUnconfirmedEntryKeepsIt) {
  const uint64_t handle = agent().program(old_);
  {
    const Vela::ActivityLock lock;
    auto record = *agent().tableImpl->tableCache()->cache({{tableResource, exactTable}, handle});
    record.entryState = EntryState::pendingToBeAdded;
    agent().tableImpl->tableCache()->cacheIs(record);
  }
  agent().begin();
  agent().add(0, changed_);
  agent().end();
  forwarder().failNext(ErrorCode::hardwareError);
  agent().outcome();
  expectStands(old_, handle);
}

TEST_F(RollBackTest, FailureThatNoBatchWaitsForIsKeptUntilMended) {
  const uint64_t handle = agent().program(old_);
  const EntryFailures& failures = *agent().tableImpl->failures();
  const RowChange restarted{"exact", "", "", false, handle, agent().lastSequence()};
  forwarder().report(restarted, ErrorCode::hardwareError, "parity error");
  EXPECT_EQ(failures.failedEntries(), 1u);
  EXPECT_THAT(failures.list(), testing::AllOf(testing::HasSubstr("table exact, ether_type="),
                                              testing::HasSubstr("error 3 parity error")));
  forwarder().report({"", "", "", false, 4711, 1}, ErrorCode::hardwareError);  // nobody's
  EXPECT_EQ(failures.failedEntries(), 1u);
  EXPECT_EQ(failures.reportsOnNoRow(), 1u);
  EXPECT_EQ(codeOfAdd(changed_), OK);
  EXPECT_EQ(failures.failedEntries(), 0u);
  EXPECT_EQ(failures.list(), "");

  forwarder().report(restarted, ErrorCode::hardwareError);
  EXPECT_EQ(failures.failedEntries(), 0u) << "that row was written over";
  forwarder().report({"exact", "", "", false, handle, agent().lastSequence()},
                     ErrorCode::hardwareError);
  EXPECT_EQ(failures.failedEntries(), 1u);
  EXPECT_EQ(agent().metadataCount(), 1u);
  agent().remove(changed_);
  EXPECT_EQ(failures.failedEntries(), 0u);
  EXPECT_EQ(agent().metadataCount(), 0u);
}

// The entry has no handle any more, but the forwarding plane still has something of it.
TEST_F(RollBackTest, FailureToRemoveWhatWasTakenBackIsKeptUntilMended) {
  const EntryFailures& failures = *agent().tableImpl->failures();
  for (const char* mended : {"removed later", "swept with a snapshot", "written over"}) {
    agent().begin();
    agent().add(0, old_);
    agent().add(1, changed_);
    agent().end();
    forwarder().ignoreNext();
    EXPECT_THAT(agent().outcome(),
                ElementsAre(FailedWith(0, DEADLINE_EXCEEDED), FailedWith(1, DEADLINE_EXCEEDED)));
    agent().tableImpl->revertCriticalState();
    const RowChange undoing = forwarder().next();
    forwarder().failNext(ErrorCode::hardwareError, "stuck");
    EXPECT_EQ(failures.failedEntries(), 1u);
    EXPECT_THAT(failures.list(), testing::AllOf(testing::HasSubstr("table exact, ether_type="),
                                                testing::HasSubstr("not removed): error 3 stuck")));
    agent().tableImpl->handleInStep(undoing.sequence - 1);
    EXPECT_EQ(failures.failedEntries(), 1u) << "a snapshot from before";
    if (mended[0] == 'r') forwarder().report(undoing, ErrorCode::none);
    if (mended[0] == 's') agent().tableImpl->handleInStep(undoing.sequence);
    if (mended[0] == 'w') agent().program(changed_);
    EXPECT_EQ(failures.failedEntries(), 0u) << mended;
  }
}

// Two forwarding agents disagree: the report of one leaves the other's as it is.
TEST_F(RollBackTest, FailureBelongsToTheForwardingAgentThatReportedIt) {
  const EntryFailures& failures = *agent().tableImpl->failures();
  const uint64_t handle = agent().program(old_);
  const auto said = [&](uint64_t by, uint64_t sequence, uint16_t code, bool settles) {
    const Vela::ActivityLock lock;
    const Lattice::Report report{handle, sequence, code, "", by, by == 1 ? "one" : "two", settles};
    agent().batchStatus->reportsAre({&report, 1});
  };
  const uint64_t sequence = agent().lastSequence();
  said(1, sequence, 13, true);
  said(2, sequence, 3, true);
  EXPECT_EQ(failures.failedEntries(), 1u);
  EXPECT_THAT(failures.list(), testing::AllOf(testing::HasSubstr("error 13 (reported by one)"),
                                              testing::HasSubstr("error 3 (reported by two)")));
  said(2, sequence, 0, false);
  EXPECT_THAT(failures.list(), testing::Not(testing::HasSubstr("two")));
  said(2, sequence, 3, true);
  EXPECT_EQ(agent().tableImpl->failures()->agentDel(1), 1u);
  EXPECT_THAT(failures.list(), testing::Not(testing::HasSubstr("one")));
  EXPECT_EQ(codeOfAdd(changed_), OK) << "programmed by both";
  EXPECT_EQ(failures.failedEntries(), 0u);
}

// The late success of the add that timed out says nothing of its removal, which failed.
TEST_F(RollBackTest, LateSuccessOfATimedOutAddLeavesTheFailureOfItsRemoval) {
  const EntryFailures& failures = *agent().tableImpl->failures();
  agent().begin();
  agent().add(0, old_);
  agent().end();
  const RowChange add = forwarder().next();
  forwarder().ignoreNext();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, DEADLINE_EXCEEDED)));
  forwarder().report(add, ErrorCode::none);
  const RowChange removal = forwarder().next();
  forwarder().failNext(ErrorCode::hardwareError, "stuck");
  forwarder().report(add, ErrorCode::none);
  EXPECT_EQ(failures.failedEntries(), 1u);
  forwarder().report(removal, ErrorCode::none);
  EXPECT_EQ(failures.failedEntries(), 0u);
}

// Successes come as one word on all changes up to a number, so that no report names the removal.
TEST(EntryFailures, ForgetsWhatWasTakenBackOnceItsRemovalIsProgrammed) {
  EntryFailures failures("failures");
  for (uint64_t handle = 1; handle <= 4; ++handle) failures.undoneIs(handle, "entry", 10 * handle);
  failures.failureIs(2, 1, 20, "entry not removed");
  failures.failureIs(3, 1, 30, "entry not removed");
  failures.programmedUpToIs(30);
  const auto remembered = [&] {
    std::vector<uint64_t> handles;
    for (uint64_t handle = 1; handle <= 4; ++handle) {
      if (failures.undone(handle)) handles.push_back(handle);
    }
    return handles;
  };
  EXPECT_THAT(remembered(), ElementsAre(2, 3, 4));
  failures.programmedIs(2, 1, 20);  // mended
  EXPECT_THAT(remembered(), ElementsAre(3, 4));
  failures.agentDel(1);
  EXPECT_THAT(remembered(), ElementsAre(4));
  failures.programmedIs(4, 1, 40);
  EXPECT_THAT(remembered(), ElementsAre(4)) << "another forwarding agent may still fail";
  failures.programmedUpToIs(40);
  EXPECT_THAT(remembered(), ElementsAre());
  EXPECT_EQ(failures.failedEntries(), 0u);
}

TEST(EntryFailures, ListsTheFirstThousand) {
  EntryFailures failures("failures");
  for (uint64_t handle = 5000; handle > 0; --handle)
    failures.failureIs(handle, 1, 1, std::to_string(handle));
  const auto lines = [&] {
    return std::count(failures.list().begin(), failures.list().end(), '\n');
  };
  EXPECT_EQ(failures.failedEntries(), 5000u);
  EXPECT_EQ(lines(), 999);
  EXPECT_EQ(failures.list().substr(0, 4), "1\n2\n");
  failures.failureDel(1);
  failures.failureDel(4000);
  EXPECT_EQ(failures.failedEntries(), 4998u);
  EXPECT_EQ(failures.list().substr(0, 4), "2\n3\n");
  EXPECT_EQ(lines(), 999);
  for (uint64_t handle = 2; handle <= 5000; ++handle) failures.failureDel(handle);
  EXPECT_EQ(failures.list(), "");
  EXPECT_TRUE(failures.empty());
}

}  // namespace
}  // namespace P4Runtime
