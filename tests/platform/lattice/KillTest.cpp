// An agent killed at any instant, again and again, with a follower attached: what the follower
// holds in the end is what the tables hold, and the caches agree. The test program runs itself as
// the agent.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

// In each batch some rows, each with a cache record that says the same.
void writeBatch(Agent& agent, ArTableInterface& routes, std::mt19937_64& random) {
  const ActivityLock lock;
  const auto cache = agent.store->table("cache");
  agent.database->batchBegin();
  for (int i = 0; i < 40; ++i) {
    const auto dst = static_cast<uint32_t>(random() % 2000);
    const Row row = route(dst, static_cast<uint32_t>(random()));
    if (random() % 3 == 0) {
      routes.rowDel(row.key, dst + 1);
      agent.store->erase(cache, Brine::asBytes(row.key));
    } else {
      routes.rowIs(row, dst + 1);
      agent.store->put(cache, Brine::asBytes(row.key), Brine::asBytes(row.value));
    }
  }
  EXPECT_EQ(agent.database->batchEnd(), std::nullopt);
}

[[noreturn]] void writeForEver(const std::string& directory, unsigned seed) {
  Agent agent(directory);
  auto& routes = agent.table("routes");
  std::mt19937_64 random(seed);
  for (;;) writeBatch(agent, routes, random);
}

TEST(LatticeKillTest, AFollowerHoldsWhatTheTablesHold) {
  const TempDir directory;
  Follower follower(directory.path());
  std::mt19937_64 random(8);
  for (unsigned kills = 0; kills < 25; ++kills) {
    const pid_t child = fork();
    if (child == 0) {
      execl("/proc/self/exe", "lattice_test", "--write", directory.path().c_str(),
            std::to_string(kills).c_str(), nullptr);
      _exit(1);
    }
    const size_t enough = follower.changes + 1 + random() % 1000;
    EXPECT_TRUE(Agent::followUntil({follower.subscriber.get()},
                                   [&] { return follower.changes >= enough; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  Agent agent(directory.path());
  auto& routes = agent.table("routes");
  writeBatch(agent, routes, random);
  ASSERT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] {
    return follower.subscriber->sequence() == agent.database->lastSequence();
  }));
  const ActivityLock lock;
  const auto cache = agent.store->table("cache");
  const auto& rows = follower.rows["routes"];
  EXPECT_EQ(rows.size(), routes.rowCount());
  EXPECT_EQ(rows.size(), agent.store->count(cache));
  for (const auto& [key, value] : rows) {
    ASSERT_EQ(routes.row(key)->value, value);
    ASSERT_EQ(Brine::asText(agent.store->get(cache, Brine::asBytes(key)).value()), value);
  }
}

}  // namespace
}  // namespace Lattice

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--write") {
    Lattice::writeForEver(argv[2], static_cast<unsigned>(std::stoul(argv[3])));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
