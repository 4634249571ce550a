// How the forwarding agents' reports become the statuses of a write batch.
#include <unistd.h>

#include <thread>

#include "P4Runtime/pi/KorvelPiImpl.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

StatusVector pendingAt(std::initializer_list<uint32_t> offsets) {
  StatusVector statuses;
  for (const uint32_t offset : offsets) {
    statuses.emplace_back().first = offset;
    statuses.back().second.set_canonical_code(grpc::StatusCode::DEADLINE_EXCEEDED);
  }
  return statuses;
}

class BatchTest : public AgentTest {
 protected:
  // Entries 0 to n - 1 at offsets 0 to n - 1.
  void addMany(uint8_t n) {
    agent().begin();
    for (uint8_t id = 0; id < n; ++id) agent().add(id, routeEntry(id));
    agent().end();
  }
  static Entry routeEntry(uint8_t id) {
    return {route4Table, bytes("0005") + prefix("0a000000", 8 + id), drop, ""};
  }
};

TEST_F(BatchTest, OnlyFailuresRemainInOrderWithTheirMessages) {
  addMany(6);
  for (uint32_t offset = 0; offset < 6; ++offset) {
    if (offset % 2 == 0) {
      forwarder().programNext();
    } else {
      forwarder().failNext(ErrorCode::hardwareError, "at " + std::to_string(offset));
    }
  }
  const auto left = agent().outcome();
  EXPECT_THAT(
      left, ElementsAre(FailedWith(1, INTERNAL), FailedWith(3, INTERNAL), FailedWith(5, INTERNAL)));
  EXPECT_EQ(left[1].second.message(), "at 3");
  EXPECT_EQ(agent().rowCount(route4Table), 3u);
}

TEST_F(BatchTest, WithoutPendingEntriesNothingIsWaitedFor) {
  agent().batchStatus->batchTimeoutIs(3600);
  agent().begin();
  agent().end();
  EXPECT_THAT(agent().outcome(), IsEmpty());
  agent().begin();
  agent().add(4, {labelTable, bytes("000001"), drop, ""});
  agent().end();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(4, UNIMPLEMENTED)));
}

TEST_F(BatchTest, IsRefusedWithoutAForwardingAgent) {
  using std::chrono::hours;
  forwarder().attachedIs(false);
  EXPECT_EQ(_pi_batch_begin(0), PI_STATUS_NO_FORWARDING_AGENT);
  EXPECT_FALSE(agent().batchStatus->inProgress());
  EXPECT_EQ(pi::fe::proto::DeviceMgr::get_operation_permission_level(), 2u);

  // One that has just left may be back in a moment, for which the lock is free.
  forwarder().attachedIs(false, hours(1));
  pi_status_t begun = PI_STATUS_BATCH_UPDATE_FAILED;
  std::thread writer([&] { begun = _pi_batch_begin(0); });
  {
    const Vela::ActivityLock lock;
    forwarder().attachedIs(true, hours(1));
  }
  writer.join();
  EXPECT_EQ(begun, PI_STATUS_SUCCESS);

  // It goes away while the batch waits for it, and comes back.
  agent().batchStatus->batchTimeoutIs(3600);
  addMany(2);
  forwarder().attachedIs(false);
  forwarder().attachedIs(true);
  forwarder().programAll();
  EXPECT_THAT(agent().outcome(), IsEmpty());
}

TEST_F(BatchTest, CountBelowTheBaselineIsThatOfTheReports) {
  agent().begin();
  for (const uint64_t handle : {900, 901}) {  // complete without the forwarding plane
    const Vela::ActivityLock lock;
    agent().batchStatus->completedTransactionStatusIs({handle, 0});
  }
  agent().add(0, routeEntry(0));
  agent().end();
  uint64_t taken = 0;
  ASSERT_EQ(read(agent().batchStatus->notifyFd(), &taken, sizeof taken), ssize_t{sizeof taken});
  EXPECT_EQ(taken, 2u);
  forwarder().programAll();
  EXPECT_THAT(agent().outcome(), IsEmpty());
}

TEST_F(BatchTest, WaitEndsWithTheLastReport) {
  agent().batchStatus->batchTimeoutIs(3600);
  addMany(50);
  StatusVector left;
  std::thread writer([&] { left = agent().outcome(); });  // waits without the activity lock
  for (int i = 0; i < 50; ++i) {
    i % 10 == 9 ? forwarder().failNext(ErrorCode::tableFull) : forwarder().programNext();
  }
  writer.join();
  EXPECT_EQ(left.size(), 5u);
  EXPECT_EQ(agent().rowCount(route4Table), 45u);
}

TEST_F(BatchTest, InStepCompletesWhatWasNotReportedOn) {
  agent().batchStatus->batchTimeoutIs(3600);
  addMany(3);
  forwarder().failNext(ErrorCode::hardwareError);
  {
    const Vela::ActivityLock lock;
    agent().batchStatus->inStepIs(agent().database->lastSequence());
  }
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, INTERNAL)));
}

// An update that is refused after its row was written must not be taken for a completion.
TEST_F(BatchTest, RefusedUpdateIsNotCountedAmongTheReports) {
  agent().begin();
  agent().add(0, routeEntry(0));
  const uint64_t undone = agent().lastHandle;
  agent().add(1, routeEntry(1));
  {
    const Vela::ActivityLock lock;
    P4RuntimeException::handleException({"no room", undone, 0, ErrorCode::outOfResources});
  }
  agent().end();
  {
    const Vela::ActivityLock lock;
    agent().batchStatus->inStepIs(agent().database->lastSequence());
  }
  EXPECT_FALSE(agent().batchStatus->completedTransactionStatus(undone));
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED)));
  EXPECT_FALSE(agent().status->critical());
  EXPECT_EQ(agent().handleOf(routeEntry(0)), 0u);
  EXPECT_EQ(agent().rowCount(route4Table), 1u);
}

TEST_F(BatchTest, RefusalUndoesEarlierWritesOfTheEntryAndFailsThem) {
  agent().begin();
  agent().add(0, routeEntry(0));
  agent().add(1, routeEntry(1));
  agent().add(2, routeEntry(0));
  {
    const Vela::ActivityLock lock;
    P4RuntimeException::handleException(
        {"no room", agent().lastHandle, 2, ErrorCode::outOfResources});
  }
  agent().end();
  forwarder().programAll();
  EXPECT_THAT(agent().outcome(),
              ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED), FailedWith(2, RESOURCE_EXHAUSTED)));
  EXPECT_FALSE(agent().status->critical());
}

TEST_F(BatchTest, CopyingOfRefusalsStopsAtAnOffsetWithoutElement) {
  agent().begin();
  setPendingStatusForOffset(0, 14, "first");
  setPendingStatusForOffset(7, 14, "of no update");
  setPendingStatusForOffset(1, 14, "behind it");
  agent().end();
  StatusVector statuses = pendingAt({0, 1});
  _pi_update_pending_status(&statuses);
  EXPECT_THAT(statuses,
              ElementsAre(FailedWith(0, INVALID_ARGUMENT), FailedWith(1, DEADLINE_EXCEEDED)));
  EXPECT_FALSE(agent().status->critical()) << "no entry stands behind it";
}

TEST_F(BatchTest, BatchThatNobodyAskedAboutIsForgotten) {
  addMany(2);
  forwarder().programNext();
  agent().begin();  // and the second report is late
  EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
  forwarder().programNext();
  agent().add(0, routeEntry(7));
  agent().end();
  const auto statuses = agent().outcome();
  EXPECT_THAT(statuses, ElementsAre(FailedWith(0, DEADLINE_EXCEEDED)))
      << "nobody has reported on it";
}

TEST_F(BatchTest, HandleWithoutOffsetIsAnError) {
  agent().begin();
  StatusVector statuses = pendingAt({0});
  try {
    markStatusEntryNotPending(statuses, 4711, 0, "");
    FAIL();
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "Batch offset for entry handle 4711 does not exist");
  }
  agent().batchStatus->newEntryHandleForBatchOffset(4711, 3);
  EXPECT_EQ(markStatusEntryNotPending(statuses, 4711, 0, ""), statuses.end());
}

TEST_F(BatchTest, MarkingAnswersThePositionBehind) {
  addMany(3);
  const Vela::ActivityLock lock;
  StatusVector statuses = pendingAt({0, 1, 2});
  const auto handleAt = [&](uint32_t offset) {
    return (agent().batchStatus->written().begin() + offset)->handle;  // one an offset
  };
  EXPECT_EQ(markStatusEntryNotPending(statuses, handleAt(1), 0, "")->first, 2u);
  EXPECT_EQ(markStatusEntryNotPending(statuses, handleAt(0), 3, "failed")->first, 2u);
  EXPECT_EQ(markStatusEntryNotPending(statuses, handleAt(0), 3, "again")->first, 2u);
  EXPECT_EQ(statuses[0].second.message(), "failed");
  const auto behindLast = markStatusEntryNotPending(statuses, handleAt(2), 0, "");
  EXPECT_EQ(behindLast, statuses.end());
  EXPECT_EQ(statuses.size(), 1u);
}

TEST_F(BatchTest, MarkingAnEntryOfTwoOffsetsAnswersThePositionBehindTheLast) {
  agent().begin();
  agent().add(0, routeEntry(0));
  agent().add(1, routeEntry(1));
  agent().add(2, routeEntry(0));
  agent().end();
  const Vela::ActivityLock lock;
  StatusVector statuses = pendingAt({0, 1, 2, 3});
  EXPECT_EQ(markStatusEntryNotPending(statuses, agent().lastHandle, 0, "")->first, 3u);
  EXPECT_THAT(statuses,
              ElementsAre(FailedWith(1, DEADLINE_EXCEEDED), FailedWith(3, DEADLINE_EXCEEDED)));
}

// The facility by which controllers' tests see failures without a forwarding agent.
TEST_F(BatchTest, PretendedOutcomes) {
  BatchStatus& status = *agent().batchStatus;
  status.pretendHwProgrammingIs(true);
  addMany(3);
  EXPECT_THAT(agent().outcome(), IsEmpty());

  status.pretendHwProgrammingFailedIs(true);
  status.pretendHwProgrammingFailedOffsetIs(1);
  addMany(3);
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(1, INTERNAL)));
  EXPECT_FALSE(agent().status->critical());

  status.pretendHwProgrammingTimeoutIs(true);
  status.pretendHwProgrammingTimeoutOffsetIs(2);
  addMany(3);
  forwarder().programAll();  // an honest one, which has programmed all before the wait begins
  EXPECT_THAT(agent().outcome(),
              ElementsAre(FailedWith(1, INTERNAL), FailedWith(2, DEADLINE_EXCEEDED)));
  EXPECT_TRUE(agent().status->critical());
  agent().tableImpl->revertCriticalState();

  agent().begin();  // a refused update has no entry any more
  agent().add(0, {labelTable, bytes("000001"), drop, ""});
  agent().end();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, UNIMPLEMENTED)));
}

TEST_F(BatchTest, PretendingTwoOutcomesOfOneUpdateAborts) {
  BatchStatus& status = *agent().batchStatus;
  status.pretendHwProgrammingIs(true);
  status.pretendHwProgrammingFailedIs(true);
  status.pretendHwProgrammingTimeoutIs(true);
  EXPECT_DEATH(maybePretendHwProgramming(), "pretendHwProgrammingTimeoutOffset");
}

TEST_F(BatchTest, AnyTimeOutThatCanBeSetIsAWait) {
  for (const double seconds : {-1.0, 0.9, -1e300}) {
    SCOPED_TRACE(seconds);
    agent().batchStatus->batchTimeoutIs(seconds);
    addMany(1);
    EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, DEADLINE_EXCEEDED)));
    agent().tableImpl->revertCriticalState();
  }
  agent().batchStatus->batchTimeoutIs(1e300);
  addMany(1);
  forwarder().programAll();
  EXPECT_THAT(agent().outcome(), IsEmpty());
}

}  // namespace
}  // namespace P4Runtime
