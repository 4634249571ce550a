#include "P4Runtime/companion/BatchStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

namespace P4Runtime {
namespace {

using Handles = std::vector<EntryHandle>;

// A batch without shared tables. Handle H is pending under the sequence number H + 100.
class BatchStatusTest : public testing::Test {
 protected:
  BatchStatusTest() {
    batch_.notifyFdIs(descriptor_);
    batch_.strayReportHandlerIs([this](const auto& r) { strays_.push_back(r.entryHandle); });
    batch_.rollbackHandlerIs([this](EntryHandle handle) { rolledBack_.push_back(handle); });
    batch_.onBatchBegin();
  }
  ~BatchStatusTest() override { close(descriptor_); }

  void pending(EntryHandle handle) { batch_.pendingOperationIs(handle, handle + 100); }
  void reported(EntryHandle handle, uint64_t sequence, uint16_t code = 0, bool settles = true) {
    const Lattice::Report report{handle, sequence, code, "", 1, "", settles};
    batch_.reportsAre({&report, 1});
  }
  // Completions as a waiting thread counts them, with one read.
  uint64_t completions() {
    uint64_t count = 0;
    if (read(descriptor_, &count, sizeof count) != sizeof count) return 0;
    const uint64_t baseline = batch_.completedOperationBaseline();
    return count >= baseline ? count - baseline : count;
  }
  bool completed(EntryHandle handle) const {
    return batch_.completedTransactionStatus(handle).has_value();
  }

  const int descriptor_ = eventfd(0, EFD_NONBLOCK);
  const Vela::Ptr<BatchStatus> shared_ = Vela::make<BatchStatus>("batchStatus");
  BatchStatus& batch_ = *shared_;
  Handles strays_;
  Handles rolledBack_;
};

TEST_F(BatchStatusTest, ReportCountsOnceAndOnlyForWhatItReportsOn) {
  pending(1);
  pending(2);
  reported(1, 101, 0, false);  // another forwarding agent owes one
  EXPECT_EQ(batch_.reportsDropped(), 0u);
  strays_.clear();
  reported(3, 103);  // nobody's
  reported(1, 99);   // of an earlier write
  EXPECT_EQ(completions(), 0u);
  reported(1, 101);
  reported(1, 101);  // again
  reported(2, 102, 13);
  EXPECT_EQ(completions(), 2u);
  EXPECT_EQ(strays_, (Handles{3, 1, 1}));
  EXPECT_EQ(batch_.reportsAccepted(), 2u);
  EXPECT_EQ(batch_.reportsDropped(), 3u);
  EXPECT_EQ(batch_.completedTransactionStatus(2)->errorCode(), 13);
  EXPECT_NE(batch_.completedTransactionStatus(2)->errorMessage(), "");
}

TEST_F(BatchStatusTest, NewBatchKnowsNothingOfTheLast) {
  pending(1);
  batch_.newEntryHandleForBatchOffset(1, 0);
  batch_.completedTransactionStatusIs({9, 0});
  reported(1, 101);
  batch_.onBatchBegin();
  EXPECT_EQ(completions(), 0u);
  EXPECT_EQ(batch_.written().size(), 0u);
  EXPECT_FALSE(completed(9));
  EXPECT_TRUE(batch_.offsetsOf(1).empty());
  pending(2);
  reported(1, 101);  // late
  EXPECT_EQ(completions(), 0u);
  EXPECT_FALSE(completed(1));
}

TEST_F(BatchStatusTest, OperationCompleteWithoutTheForwardingPlaneIsNotWaitedFor) {
  pending(1);
  batch_.completedTransactionStatusIs({9, 0});  // an empty group, say
  EXPECT_EQ(completions(), 0u);                 // the baseline takes it off, once
  reported(1, 101);
  EXPECT_EQ(completions(), 1u);
}

TEST_F(BatchStatusTest, CompleteHandleThatIsWrittenForRealIsPendingAgain) {
  batch_.completedTransactionStatusIs({9, 0});
  pending(9);
  EXPECT_FALSE(completed(9));
  reported(9, 109);
  EXPECT_TRUE(completed(9));
  EXPECT_EQ(completions(), 1u);
}

TEST_F(BatchStatusTest, InStepCompletesWhatItCovers) {
  for (const EntryHandle handle : {1, 2, 3}) pending(handle);
  batch_.inStepIs(102);
  EXPECT_EQ(completions(), 2u);
  EXPECT_TRUE(completed(1) && completed(2));
  EXPECT_FALSE(completed(3));
  batch_.inStepIs(102);
  EXPECT_EQ(completions(), 0u);
}

// The word on all changes up to a number, whatever the order in which entries were written again.
TEST_F(BatchStatusTest, ProgrammedCompletesAllThatItCoversButWhatFailed) {
  for (const EntryHandle handle : {1, 2, 3, 4, 5}) pending(handle);
  reported(2, 102, 13);
  batch_.pendingOperationIs(1, 106);  // written again
  batch_.programmedIs(103);
  EXPECT_EQ(completions(), 2u);
  EXPECT_FALSE(completed(1));
  EXPECT_EQ(batch_.completedTransactionStatus(2)->errorCode(), 13);
  EXPECT_EQ(batch_.completedTransactionStatus(3)->errorCode(), 0);
  batch_.programmedIs(103);
  batch_.programmedIs(105);
  EXPECT_EQ(completions(), 2u);
  EXPECT_EQ(batch_.pendingOperationCount(), 1u);
  EXPECT_FALSE(batch_.allSucceeded());
  batch_.programmedIs(106);
  EXPECT_TRUE(completed(1));
  EXPECT_EQ(batch_.reportsAccepted(), 5u);
  EXPECT_EQ(batch_.reportsDropped(), 0u);
}

TEST_F(BatchStatusTest, SilenceOfOneHandleIsThatOfNoOther) {
  for (const EntryHandle silent : {1, 2, 3}) {
    batch_.onBatchBegin();
    for (const EntryHandle handle : {1, 2, 3}) pending(handle);
    batch_.pretendSilence(silent);
    batch_.programmedIs(103);
    for (const EntryHandle handle : {1, 2, 3}) EXPECT_EQ(completed(handle), handle != silent);
    EXPECT_EQ(batch_.pendingOperationCount(), 1u);
  }
}

TEST_F(BatchStatusTest, RollbackPutsBackWholeUpdatesAndListensNoMore) {
  for (const EntryHandle handle : {1, 2, 3, 4}) pending(handle);
  batch_.newEntryHandleForBatchOffset(1, 0);
  for (const EntryHandle handle : {2, 3, 4}) batch_.newEntryHandleForBatchOffset(handle, 7);
  for (const EntryHandle handle : {1, 3, 4}) reported(handle, handle + 100);
  batch_.onBatchRollback();
  EXPECT_EQ(rolledBack_, (Handles{4, 3, 2})) << "all of the update, the last write first";
  reported(2, 102);
  EXPECT_FALSE(completed(2));
  EXPECT_EQ(strays_, Handles{2});
}

TEST(BatchStatusEntry, HasAMessageForEveryFailure) {
  for (uint16_t code = 0; code < 20; ++code) {
    BatchStatusEntry entry(1, code);
    entry.setErrorMessage();
    EXPECT_EQ(entry.errorMessage().empty(), code == 0) << code;
  }
  BatchStatusEntry told(1, 3, "the forwarding agent's own words");
  told.setErrorMessage();
  EXPECT_EQ(told.errorMessage(), "the forwarding agent's own words");
}

}  // namespace
}  // namespace P4Runtime
