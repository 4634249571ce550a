#include "P4Runtime/pi/RunUpdate.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using pi::fe::proto::DeviceMgr;

class CriticalStateTest : public AgentTest {
 protected:
  static uint32_t level() { return DeviceMgr::get_operation_permission_level(); }
};

TEST_F(CriticalStateTest, TimeOutRefusesWritesUntilItIsReverted) {
  EXPECT_EQ(level(), 2u);
  agent().begin();
  agent().add(0, exactEntry(1));
  agent().end();
  agent().outcome();
  EXPECT_EQ(level(), 1u);
  EXPECT_TRUE(agent().status->critical());
  EXPECT_FALSE(agent().status->brokenInvariant());
  EXPECT_EQ(agent().status->criticalReason(),
            "The switch is in critical state since hardware programming for one or more tables "
            "could not be verified");
  EXPECT_EQ(agent().status->criticalSince().size(), std::string("2024-06-07T12:00:00Z").size());

  const Vela::ActivityLock lock;
  EXPECT_EQ(agent().tableImpl->operation("revertCriticalState")->run({}),
            "writes are allowed again");
  EXPECT_EQ(level(), 2u);
  EXPECT_FALSE(agent().status->critical());
  EXPECT_EQ(agent().status->criticalReason(), "");
}

TEST_F(CriticalStateTest, BrokenInvariantIsPublished) {
  const Vela::ActivityLock lock;
  agent().tableImpl->triggerCriticalState();
  EXPECT_EQ(level(), 1u);
  EXPECT_TRUE(agent().status->brokenInvariant());
  EXPECT_EQ(agent().status->criticalReason(),
            "WRITE operation is not allowed due to critical state");
  P4RuntimeCriticalStateException::handleException({"another", 0, ErrorCode::unverified});
  EXPECT_EQ(agent().status->criticalReason(),
            "WRITE operation is not allowed due to critical state")
      << "the first reason stands";
  agent().tableImpl->revertCriticalState();
  EXPECT_FALSE(agent().status->brokenInvariant());
  EXPECT_EQ(
      P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException("x")),
      updateFailedStatus);
}

// Neither done nor undone is certain then, so neither may be said.
TEST_F(CriticalStateTest, OutcomeThatIsNotUnderstoodBreaksAnInvariant) {
  agent().begin();
  agent().add(0, exactEntry(1));
  agent().add(1, exactEntry(2));
  agent().end();
  forwarder().programAll();
  agent().frontEnd.onSettled = [] { throw std::logic_error("odd"); };
  const auto left = agent().outcome();
  agent().frontEnd.onSettled = nullptr;
  ASSERT_THAT(left, testing::ElementsAre(FailedWith(0, INTERNAL), FailedWith(1, INTERNAL)));
  EXPECT_EQ(left[0].second.message(), "its outcome is not known: odd; the switch is critical");
  EXPECT_TRUE(agent().status->brokenInvariant());
  EXPECT_EQ(level(), 1u);
  EXPECT_FALSE(agent().batchStatus->inProgress());
  agent().tableImpl->revertCriticalState();
  EXPECT_EQ(agent().tableImpl->restoreRequests(), 1u)
      << "the front end takes for undone what stands";
  EXPECT_NE(codeOfAdd(exactEntry(3)), 0) << "before that";
}

TEST_F(CriticalStateTest, BatchThatCouldNotBeginIsNotLeftOpen) {
  int begun = 0;
  const auto observed = agent().batchStatus->inProgressAttribute().observe([&] {
    if (begun++ == 0) throw std::bad_alloc();
  });
  EXPECT_EQ(_pi_batch_begin(0), PI_STATUS_TARGET_ERROR);
  EXPECT_FALSE(agent().batchStatus->inProgress());
  EXPECT_FALSE(agent().database->inBatch());
  EXPECT_EQ(codeOfAdd(exactEntry(1)), 0);
}

TEST_F(CriticalStateTest, BatchThatIsOpenWritesNoMore) {
  agent().begin();
  EXPECT_EQ(agent().add(0, exactEntry(1)), PI_STATUS_SUCCESS);
  agent().tableImpl->triggerCriticalState();
  EXPECT_EQ(agent().add(1, exactEntry(2)), updateFailedStatus);
  agent().end();
  forwarder().programAll();
  const auto left = agent().outcome();
  ASSERT_THAT(left, testing::ElementsAre(FailedWith(1, INTERNAL)));
  EXPECT_EQ(left[0].second.message(), "WRITE operation is not allowed due to critical state");
  EXPECT_EQ(agent().rowCount(exactTable), 1u) << "what it has written is settled as ever";
}

TEST_F(CriticalStateTest, ExceptionWithoutEntryRecordsItsErrorOnly) {
  const uint64_t handle = agent().program(exactEntry(1));
  agent().begin();
  agent().add(0, exactEntry(1, 9));
  EXPECT_EQ(P4RuntimeException::handleException({"refused", 0, 3, ErrorCode::alreadyExists}),
            updateFailedStatus);
  EXPECT_EQ(agent().tableImpl->numPendingEntries(), 1u);
  EXPECT_EQ(agent().handleOf(exactEntry(1)), handle);
}

TEST_F(CriticalStateTest, RefusalThatTheBatchKnowsOfIsThrown) {
  agent().begin();
  pi_batch_current_set(5, 0, 0, nullptr, 0);
  maybeThrowBatchEntryErrorException(1);
  agent().batchStatus->completedTransactionStatusIs({1, 0});
  maybeThrowBatchEntryErrorException(1);
  agent().batchStatus->completedTransactionStatusIs({2, 13, "full"});
  try {
    maybeThrowBatchEntryErrorException(2);
    FAIL();
  } catch (const P4RuntimeException& e) {
    EXPECT_STREQ(e.what(), "full");
    EXPECT_EQ(e.entryHandle, 2u);
    EXPECT_EQ(e.offset(), 5u);
    EXPECT_EQ(e.errorCode, ErrorCode::tableFull);
  }
  agent().end();
}

}  // namespace
}  // namespace P4Runtime
