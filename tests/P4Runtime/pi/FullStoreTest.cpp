// A state directory that is full costs the writes that do not fit, and nothing else.
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

class FullStoreTest : public AgentTest {
 protected:
  static CachePodArray<uint8_t> exactRecord(uint8_t port) {
    CachePodArray<uint8_t> data;
    data.elementIs(0, 0);
    data.elementIs(1, port);
    return data;
  }
  int losses_ = 0;
};

TEST_F(FullStoreTest, BatchThatDoesNotFitNeverWas) {
  agent().batchStatus->batchTimeoutIs(3600);  // nobody has to wait for it either
  Entry old = exactEntry(1, 5);
  old.metadata = "old";
  const uint64_t changed = agent().program(old);
  const uint64_t deleted = agent().program(exactEntry(2));
  const uint64_t before = agent().lastSequence();
  agent().frontEnd.settled.clear();
  for (const char* once : {"once", "and again"}) {
    SCOPED_TRACE(once);
    agent().failCommits();
    agent().begin();
    agent().add(0, exactEntry(1, 6));
    agent().del(1, exactEntry(2));
    agent().add(2, exactEntry(3));
    agent().end();
    const auto left = agent().outcome();
    EXPECT_THAT(left,
                ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED), FailedWith(1, RESOURCE_EXHAUSTED),
                            FailedWith(2, RESOURCE_EXHAUSTED)));
    EXPECT_THAT(left[0].second.message(), testing::HasSubstr(agent().directory));
    EXPECT_EQ(forwarder().pending(), 0u);
    EXPECT_EQ(agent().lastSequence(), before);
    EXPECT_EQ(agent().handleOf(exactEntry(1)), changed);
    EXPECT_EQ(agent().handleOf(exactEntry(2)), deleted);
    EXPECT_EQ(agent().handleOf(exactEntry(3)), 0u);
    EXPECT_EQ(agent().recordCount(), 2u);
    for (const uint64_t handle : {changed, deleted}) {
      EXPECT_EQ(agent().record(exactTable, handle)->entryState, EntryState::stable);
    }
    EXPECT_EQ(agent().tableImpl->cachedMetadata({{tableResource, exactTable}, changed}), "old");
    EXPECT_EQ(agent().rowCount(exactTable), 2u);
  }
  EXPECT_FALSE(agent().status->critical());
  EXPECT_EQ(codeOfAdd(exactEntry(3)), OK);
  EXPECT_EQ(codeOfDelete(exactEntry(2)), OK);
}

// What fits of a batch is programmed.
TEST_F(FullStoreTest, UpdatesThatDoNotFitFailAndTheOthersOfTheirBatchStand) {
  const uint64_t changed = agent().program(exactEntry(1, 5));
  const uint64_t kept = agent().program(exactEntry(2, 5));
  agent().program(exactEntry(3));
  agent().fillStore();
  Entry described = exactEntry(4);
  described.metadata = std::string(3000, 'm');
  Entry longer = exactEntry(2, 6);
  longer.metadata = described.metadata;
  const Entry elsewhere{aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 258};
  agent().begin();
  EXPECT_EQ(agent().add(0, exactEntry(1, 6)), PI_STATUS_SUCCESS);
  EXPECT_NE(agent().add(1, described), PI_STATUS_SUCCESS);
  EXPECT_NE(agent().add(2, longer), PI_STATUS_SUCCESS);
  EXPECT_NE(agent().add(3, elsewhere), PI_STATUS_SUCCESS);
  EXPECT_EQ(agent().del(4, exactEntry(3)), PI_STATUS_SUCCESS);
  agent().end();
  forwarder().programAll();
  const auto left = agent().outcome();
  EXPECT_THAT(left,
              ElementsAre(FailedWith(1, RESOURCE_EXHAUSTED), FailedWith(2, RESOURCE_EXHAUSTED),
                          FailedWith(3, RESOURCE_EXHAUSTED)));
  EXPECT_THAT(left[0].second.message(), testing::HasSubstr(agent().directory));
  EXPECT_EQ(agent().handleOf(described), 0u);
  EXPECT_EQ(agent().handleOf(elsewhere), 0u);
  EXPECT_EQ(agent().handles->entryHandleCount({tableResource, exactTable}), 2u);
  EXPECT_EQ(agent().metadataCount(), 0u);
  EXPECT_FALSE(agent().status->critical());
  start();
  const Vela::ActivityLock lock;
  agent().tableImpl->restoreCachedEntries();
  EXPECT_EQ(agent().rowCount(exactTable), 2u);
  EXPECT_EQ(agent().record(exactTable, changed)->actionData, exactRecord(6));
  EXPECT_EQ(agent().record(exactTable, kept)->actionData, exactRecord(5));
}

// An undoing needs no room.
TEST_F(FullStoreTest, FailedUpdatesArePutBackThoughNothingElseFits) {
  Entry old = exactEntry(1, 5);
  old.metadata = "old";
  const uint64_t changed = agent().program(old);
  const uint64_t deleted = agent().program(exactEntry(2));
  agent().begin();
  agent().add(0, exactEntry(1, 6));
  agent().del(1, exactEntry(2));
  agent().add(2, exactEntry(3));
  agent().end();
  agent().fillStore();
  for (int i = 0; i < 3; ++i) forwarder().failNext(ErrorCode::hardwareError, "no");
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, INTERNAL), FailedWith(1, INTERNAL),
                                             FailedWith(2, INTERNAL)));
  EXPECT_FALSE(agent().status->critical()) << agent().status->criticalReason();
  start();  // as it is stored
  const Vela::ActivityLock lock;
  agent().tableImpl->restoreCachedEntries();
  ASSERT_EQ(agent().frontEnd.restored.size(), 2u);
  EXPECT_EQ(agent().frontEnd.restored[0].data, old.data);
  EXPECT_EQ(agent().frontEnd.restored[0].metadata, "old");
  EXPECT_EQ(agent().handleOf(exactEntry(1)), changed);
  EXPECT_EQ(agent().handleOf(exactEntry(2)), deleted);
  EXPECT_EQ(agent().rowCount(exactTable), 2u);
}

// The controller hears that it failed; the tables must not say otherwise without anybody knowing.
TEST_F(FullStoreTest, UndoingThatCannotBeStoredIsCriticalUntilItCan) {
  const uint64_t changed = agent().program(exactEntry(1, 5));
  const uint64_t deleted = agent().program(exactEntry(2));
  agent().begin();
  agent().add(0, exactEntry(1, 6));
  agent().del(1, exactEntry(2));
  agent().add(2, exactEntry(3));
  agent().end();
  for (int i = 0; i < 3; ++i) forwarder().failNext(ErrorCode::hardwareError, "no");
  agent().failCommits();
  EXPECT_THAT(agent().outcome(), testing::SizeIs(3));
  EXPECT_THAT(agent().status->criticalReason(),
              testing::AllOf(testing::HasSubstr("3 failed entries could not be put back"),
                             testing::HasSubstr(agent().directory)));
  EXPECT_EQ(agent().rowCount(exactTable), 2u) << "entries 1 and 3: what was to be undone stands";
  EXPECT_EQ(agent().record(exactTable, changed)->actionData, exactRecord(6));
  EXPECT_TRUE(agent().tableImpl->restoreNeeded());
  const uint64_t requests = agent().tableImpl->restoreRequests();
  {
    const Vela::ActivityLock lock;
    agent().tableImpl->revertCriticalState();
    EXPECT_EQ(agent().tableImpl->restoreRequests(), requests + 1);
    agent().tableImpl->restoreNeededIs(false);  // as the server does that is asked to
    agent().tableImpl->restoreCachedEntries();
  }
  EXPECT_FALSE(agent().status->critical());
  EXPECT_EQ(agent().frontEnd.restored.size(), 2u) << "front end and store are as one again";
  EXPECT_EQ(agent().rowCount(exactTable), 2u);
  EXPECT_EQ(agent().handleOf(exactEntry(1)), changed);
  EXPECT_EQ(agent().handleOf(exactEntry(2)), 0u);
  EXPECT_FALSE(agent().handles->entryHandleToResourceIdHas(deleted));
  EXPECT_NE(agent().handleOf(exactEntry(3)), 0u);
  EXPECT_EQ(codeOfDelete(exactEntry(3)), OK);
}

// What is lost in a commit that nobody looks at is no trace in a log.
TEST_F(FullStoreTest, LossesOfCommitsThatNobodyLooksAtAreTold) {
  const uint64_t handle = agent().program(exactEntry(1));
  agent().database->lossHandlerIs([this](const std::string&) { ++losses_; });
  agent().failCommits(2);
  const auto deleteRow = [&] {
    const ResourceId rid{tableResource, exactTable};
    agent().tableInfo->latticeTableInterface(rid)->rowDel(exactEntry(1).key, handle);
  };
  {
    const Vela::ActivityLock lock;
    deleteRow();
  }
  EXPECT_EQ(losses_, 1);
  EXPECT_EQ(agent().rowCount(exactTable), 1u);
  const Vela::ActivityLock lock;
  deleteRow();
  EXPECT_THROW(agent().tableImpl->commitOrThrow(), std::runtime_error);
}

TEST_F(FullStoreTest, WritesThatCameBeforeTheBatchStand) {
  agent().program(exactEntry(1));
  agent().begin();
  agent().add(0, exactEntry(1, 9));
  agent().end();
  forwarder().programAll();  // confirmed; its record is yet to become stable
  EXPECT_THAT(agent().outcome(), IsEmpty());
  agent().failCommits();
  agent().begin();
  agent().add(0, exactEntry(2));
  agent().end();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED)));
  start();
  const Vela::ActivityLock lock;
  agent().tableImpl->restoreCachedEntries();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
}

}  // namespace
}  // namespace P4Runtime
