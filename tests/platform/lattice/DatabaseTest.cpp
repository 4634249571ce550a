// Writing rows, following them, and reporting: one process, several threads.
#include <gtest/gtest.h>

#include "tests/platform/brine/TempDirectory.h"
#include "tests/platform/lattice/AgentFixture.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

struct DatabaseTest : testing::Test {
  TempDirectory directory;
};

TEST_F(DatabaseTest, AFollowerSeesABatchAndItsReportsComeBack) {
  Agent agent(directory.path());
  Follower follower(directory.path());
  auto& routes = agent.table("routes");
  ASSERT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] { return follower.snapshots; }));
  uint64_t last = 0;
  {
    const ActivityLock lock;
    agent.database->batchBegin();
    for (uint32_t i = 0; i < 1000; ++i) last = routes.rowIs(route(i, i), 100 + i);
    EXPECT_EQ(agent.database->batchEnd(), std::nullopt);
    EXPECT_EQ(agent.database->lastSequence(), last);
  }
  ASSERT_TRUE(
      Agent::followUntil({follower.subscriber.get()}, [&] { return agent.heard.size() == 1000; }));
  EXPECT_EQ(follower.rows["routes"].size(), 1000u);
  EXPECT_EQ(follower.rows["routes"][route(5, 5).key], route(5, 5).value);
  EXPECT_EQ(agent.heard.back().sequence, last);
  EXPECT_EQ(agent.heard.back().entryHandle, 1099u);
}

}  // namespace
}  // namespace Lattice
