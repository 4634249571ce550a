// A state directory that is full costs the writes that do not fit, and nothing else.
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

class FullStoreTest : public AgentTest {};

TEST_F(FullStoreTest, BatchThatDoesNotFitNeverWas) {
  agent().batchStatus->batchTimeoutIs(3600);  // nobody has to wait for it either
  Entry old = exactEntry(1, 5);
  old.metadata = "old";
  const uint64_t changed = agent().added(old);
  const uint64_t deleted = agent().added(exactEntry(2));
  const uint64_t before = agent().lastSequence();
  agent().frontEnd.settled.clear();
  for (const char* once : {"once", "and again"}) {
    SCOPED_TRACE(once);
    agent().begin();
    agent().add(0, exactEntry(1, 6));
    agent().del(1, exactEntry(2));
    agent().add(2, exactEntry(3));
    agent().outgrowStore();
    agent().end();
    const auto left = agent().outcome();
    EXPECT_THAT(left, ElementsAre(FailedWith(0, 8), FailedWith(1, 8), FailedWith(2, 8)));
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
  EXPECT_EQ(codeOfAdd(exactEntry(3)), 0);
  EXPECT_EQ(codeOfDelete(exactEntry(2)), 0);
}

TEST_F(FullStoreTest, WritesThatCameBeforeTheBatchStand) {
  agent().added(exactEntry(1));
  agent().begin();
  agent().add(0, exactEntry(1, 9));
  agent().end();
  forwarder().programAll();  // confirmed; its record is yet to become stable
  EXPECT_THAT(agent().outcome(), IsEmpty());
  agent().begin();
  agent().outgrowStore();
  agent().end();
  EXPECT_THAT(agent().outcome(), IsEmpty());
  start();
  const Vela::ActivityLock lock;
  agent().tableImpl->restoreCachedEntries();
  EXPECT_EQ(agent().frontEnd.restored.size(), 1u);
}

}  // namespace
}  // namespace P4Runtime
