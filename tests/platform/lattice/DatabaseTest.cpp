// Writing rows, following them, and reporting: one process, several threads.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <stdexcept>

#include "platform/brine/Reader.h"
#include "platform/lattice/records/StoreLayout.h"
#include "tests/platform/brine/FailingStore.h"
#include "tests/platform/brine/Flipping.h"
#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

struct DatabaseTest : FollowedAgentTest {
  void restartAgent(const char* definition = routeType, bool persistent = true) {
    agent.reset();
    agent = std::make_unique<Agent>(directory.path());
    routes = &agent->table("routes", definition, persistent);
  }
  // One commit, outside any batch, of rows numbered `from` up to but not `to`.
  void write(uint32_t from, uint32_t to, uint32_t nexthop = 1) {
    const ActivityLock lock;
    for (uint32_t i = from; i < to; ++i) routes->rowIs(route(i, nexthop), 100 + i);
  }
  // What one batch brings the follower.
  size_t batch(const std::function<void()>& body) {
    const size_t before = follower->changes;
    {
      const ActivityLock lock;
      agent->database->batchBegin();
      body();
      EXPECT_EQ(agent->database->batchEnd().reason(), "");
    }
    EXPECT_TRUE(received());
    return follower->changes - before;
  }
  bool received() {
    return followUntil(
        [&] { return follower->subscriber->sequence() == agent->database->lastSequence(); });
  }
};

TEST_F(DatabaseTest, AFollowerSeesABatchAndItsReportsComeBack) {
  ASSERT_TRUE(inStep());
  uint64_t last = 0;
  EXPECT_EQ(batch([&] {
              for (uint32_t i = 0; i < 3000; ++i) last = routes->rowIs(route(i, i), 100 + i);
            }),
            3000u);
  ASSERT_TRUE(followUntil([&] { return agent->heard.size() == 3000; }));
  EXPECT_EQ(follower->rows["routes"].size(), 3000u);
  EXPECT_EQ(follower->rows["routes"][route(5, 5).key], route(5, 5).value);
  EXPECT_EQ(agent->heard.back().sequence, last);
  EXPECT_EQ(agent->heard.back().entryHandle, 3099u);
}

TEST_F(DatabaseTest, OutsideABatchAnEqualRowIsNoChange) {
  const ActivityLock lock;
  EXPECT_GT(routes->rowIs(route(1, 1), 7), 0u);
  EXPECT_EQ(routes->rowIs(route(1, 1), 7), 0u);
  EXPECT_EQ(routes->rowIs(route(1, 1), 8), 0u);
  EXPECT_EQ(routes->rowEntryHandle(route(1, 1).key), 8u);
  EXPECT_EQ(routes->rowDel(route(2, 1).key, 7), 0u);
  EXPECT_GT(routes->rowDel(route(1, 1).key, 7), 0u);
  EXPECT_EQ(routes->row(route(1, 1).key), std::nullopt);
}

TEST_F(DatabaseTest, InABatchEveryCallIsReportedOnAndEachRowOnce) {
  write(1, 3);
  ASSERT_TRUE(inStep());
  const struct {
    const char* what;
    std::function<void()> calls;
    size_t changes;
    size_t unchanged;
  } cases[] = {
      {"an equal row", [&] { routes->rowIs(route(1, 1), 101); }, 1, 1},
      {"a row that is not there to delete", [&] { routes->rowDel(route(9, 1).key, 109); }, 1, 1},
      {"a row written twice",
       [&] { routes->rowIs(route(1, 2), 101), routes->rowIs(route(1, 3), 101); }, 1, 0},
      {"written, then written as it was just written",
       [&] { routes->rowIs(route(1, 4), 101), routes->rowIs(route(1, 4), 101); }, 1, 0},
      {"equal twice", [&] { routes->rowIs(route(1, 4), 101), routes->rowIs(route(1, 4), 101); }, 1,
       1},
      {"the newest again and again, another in between",
       [&] {
         for (const int to : {6, 7}) routes->rowIs(route(1, to), 101);
         for (const int to : {6, 7}) routes->rowIs(route(3, to), 103);
         for (const int to : {8, 9}) routes->rowIs(route(1, to), 101);
       },
       2, 0},
      {"added and deleted",
       [&] { routes->rowIs(route(5, 1), 105), routes->rowDel(route(5, 1).key, 105); }, 1, 1},
      {"deleted and added under another handle: both get a report",
       [&] { routes->rowDel(route(2, 1).key, 102), routes->rowIs(route(2, 1), 202); }, 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const size_t unchanged = follower->unchanged;
    EXPECT_EQ(batch(c.calls), c.changes);
    EXPECT_EQ(follower->unchanged - unchanged, c.unchanged);
  }
  const ActivityLock lock;
  for (const auto& [key, value] : follower->rows["routes"])
    EXPECT_EQ(routes->row(key)->value, value);
  EXPECT_EQ(follower->rows["routes"].size(), routes->rowCount());
}

TEST_F(DatabaseTest, AFollowerIsToldWhatAWholeCommitHasChanged) {
  write(1, 5);
  ASSERT_TRUE(inStep());
  const auto before = follower->rows["routes"];
  std::vector<uint64_t> changes;
  size_t told = 0;
  follower->onWhole = [&](const WholeCommit& commit) {
    ++told;
    auto& rows = follower->rows["routes"];
    EXPECT_NE(rows, before);
    for (const uint64_t change : changes) EXPECT_TRUE(commit.has(change));
    EXPECT_FALSE(commit.has(changes.front() - 1));
    EXPECT_FALSE(commit.has(changes.back() + 1));
    EXPECT_TRUE(commit.visitFormer([&](const RowChange& former) {
      if (former.deleted) {
        rows.erase(std::string(former.key));
      } else {
        rows[std::string(former.key)] = former.value;
        EXPECT_EQ(former.entryHandle, 100u + static_cast<uint8_t>(former.key.back()));
      }
    }));
    EXPECT_EQ(rows, before);
  };
  batch([&] { routes->rowIs(route(1, 2), 101); });
  batch([&] { routes->rowIs(route(1, 1), 101); });
  EXPECT_EQ(told, 0u) << "a batch whose changes may fail alone";
  batch([&] {
    changes = {routes->rowIs(route(1, 2), 101),   routes->rowDel(route(2, 1).key, 102),
               routes->rowIs(route(9, 1), 109),   routes->rowDel(route(3, 1).key, 103),
               routes->rowIs(route(3, 1), 203),   routes->rowDel(route(3, 1).key, 203),
               routes->rowDel(route(8, 1).key, 8)};
    agent->database->wholeBatchIs(changes);
  });
  EXPECT_EQ(told, 1u);
}

// Only batchEnd() commits in a batch, even when scopes end meanwhile.
// Of 100,000 updates, as many as a Write may have.
TEST_F(DatabaseTest, TheLargestBatchReachesAFollowerAsChanges) {
  constexpr uint32_t most = 100000;
  ASSERT_TRUE(inStep());
  const auto forEachRow = [](const std::function<void(uint32_t)>& body) {
    for (uint32_t i = 0; i < most; ++i) body(i);
  };
  const struct {
    const char* what;
    std::function<void(uint32_t)> write;
    size_t rows;
  } cases[] = {
      {"insert", [&](uint32_t i) { routes->rowIs(route(i, 1), i + 1); }, most},
      {"modify", [&](uint32_t i) { routes->rowIs(route(i, 2), i + 1); }, most},
      {"delete", [&](uint32_t i) { routes->rowDel(route(i, 2).key, i + 1); }, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(batch([&] { forEachRow(c.write); }), most);
    const ActivityLock lock;
    agent->database->settle();
    EXPECT_EQ(follower->rows["routes"].size(), c.rows);
    EXPECT_EQ(follower->snapshots, 1u);
  }
}

TEST_F(DatabaseTest, AScopeThatEndsInABatchCommitsNothing) {
  auto reader = Brine::Reader::open(directory.path());
  {
    const ActivityLock lock;
    agent->database->batchBegin();
  }
  write(0, 5);
  EXPECT_EQ(reader->snapshot()->count("row/routes"), 0u);
  {
    const ActivityLock lock;
    EXPECT_EQ(routes->rowCount(), 5u);
    EXPECT_EQ(agent->database->batchEnd().reason(), "");
  }
  EXPECT_EQ(reader->snapshot()->count("row/routes"), 5u);
  write(5, 6);
  EXPECT_EQ(reader->snapshot()->count("row/routes"), 6u);
}

TEST_F(DatabaseTest, AFollowerThatComesLateTakesASnapshotAndSaysWhenItIsInStep) {
  write(0, 2000);
  follower->holdBack = true;
  ASSERT_TRUE(followUntil([&] { return follower->held.size() == 2000; }));
  EXPECT_EQ(follower->snapshots, 1u);
  {
    const ActivityLock lock;
    ASSERT_EQ(agent->database->subscribers().size(), 1u);
    EXPECT_TRUE(agent->database->subscribers()[0].takingSnapshot);
  }
  EXPECT_EQ(agent->inStep, 0u);
  follower->reportAll();
  ASSERT_TRUE(inStep());
  EXPECT_EQ(agent->heard.size(), 2000u);
}

TEST_F(DatabaseTest, AnAgentThatRestartsWithItsRowsBringsAFollowerNoChanges) {
  write(0, 50);
  ASSERT_TRUE(inStep());
  const size_t before = follower->changes;
  restartAgent();
  write(0, 50);  // the agent restores its rows
  write(50, 51);
  ASSERT_TRUE(followUntil([&] { return follower->changes > before; }));
  EXPECT_EQ(follower->changes, before + 1);
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_EQ(follower->removed, 0u);
}

// The agent commits what it has restored, even if that was as it should be.
TEST_F(DatabaseTest, ABatchInTheAirIsSettledByTheFirstCommitAfterARestart) {
  batch([&] { routes->rowIs(route(1, 1), 7); });
  restartAgent();
  const ActivityLock lock;
  const auto isUnsettled = [&] { return routes->stored(route(1, 1).key)->unsettled; };
  EXPECT_TRUE(isUnsettled());
  EXPECT_TRUE(agent->database->commit().ok());
  EXPECT_FALSE(isUnsettled());
  agent->database->batchBegin();
  routes->rowIs(route(1, 2), 7);
  EXPECT_TRUE(agent->database->batchEnd().ok());
  EXPECT_TRUE(agent->database->commit().ok());
  EXPECT_TRUE(isUnsettled()) << "its outcome is not known";
  agent->database->settle();
  EXPECT_FALSE(isUnsettled());
}

TEST_F(DatabaseTest, AStateDirectoryMadeAnewIsFollowedFromASnapshot) {
  write(0, 50);
  ASSERT_TRUE(inStep());
  agent.reset();
  std::filesystem::remove_all(directory.path());
  agent = std::make_unique<Agent>(directory.path());
  routes = &agent->table("routes");
  write(7, 8);
  ASSERT_TRUE(inStep());
  EXPECT_EQ(follower->snapshots, 2u);
  EXPECT_EQ(follower->rows["routes"].size(), 1u);
}

TEST_F(DatabaseTest, ATableOfAnotherDefinitionIsANewTable) {
  write(0, 50);
  ASSERT_TRUE(inStep());
  restartAgent("key vrf_id : U16; key dst : U32; nexthop : U64;");
  {
    const ActivityLock lock;
    EXPECT_EQ(routes->rowCount(), 0u);
  }
  write(3, 4);
  ASSERT_TRUE(received());
  EXPECT_EQ(follower->removed, 1u);
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_EQ(follower->rows["routes"].size(), 1u);
}

TEST_F(DatabaseTest, RowsThatAreNotPersistentGoWithTheProcess) {
  write(0, 50);
  ASSERT_TRUE(inStep());
  restartAgent(routeType, false);
  ASSERT_TRUE(followUntil([&] { return follower->removed == 1; }));
  EXPECT_TRUE(follower->rows["routes"].empty());
}

TEST_F(DatabaseTest, TablesThatNobodyBoundAreRemoved) {
  write(0, 50);
  ASSERT_TRUE(inStep());
  agent.reset();
  agent = std::make_unique<Agent>(directory.path());
  auto& other = agent->table("other");
  {
    const ActivityLock lock;
    EXPECT_EQ(agent->database->removeUnboundTables(), std::vector<std::string>{"routes"});
    EXPECT_FALSE(agent->store->hasTable("row/routes"));
    EXPECT_TRUE(other.ready());
  }
  ASSERT_TRUE(followUntil([&] { return follower->removed == 1; }));
  EXPECT_TRUE(follower->rows.contains("other"));
}

TEST_F(DatabaseTest, AnInterfaceIsReadyOnceItsTypeIsCompiledAndToldOnce) {
  std::atomic<int> told = 0;
  TheTypeRegistry().typeDel("LateType");
  auto late = Vela::make<ArTableInterface>("late", "LateType", [&] { ++told; });
  {
    const ActivityLock lock;
    agent->database->bindInterface(late, "late", true);
    EXPECT_FALSE(late->ready());
    EXPECT_THROW(late->rowCount(), std::logic_error);
    TheTypeRegistry().typeIs(TableType::compile("LateType", "key k : U8; v : U8;"));
    late->maybeInitialize();
    late->maybeInitialize();
    EXPECT_TRUE(late->ready());
    EXPECT_EQ(told, 0) << "only on a later turn";
  }
  ASSERT_TRUE(followUntil([&] { return told == 1; }));
  const ActivityLock lock;
  late = nullptr;
}

// With at most 100 former rows kept and nobody attached, a follower that was away too long takes a
// snapshot; one that missed less goes on from where it was.
TEST_F(DatabaseTest, FormerRowsAreBoundedWithoutFollowers) {
  agent.reset();
  agent = std::make_unique<Agent>(directory.path(), 100);
  routes = &agent->table("routes");
  ASSERT_TRUE(inStep());
  const struct {
    uint32_t added;
    int rewrites;
    size_t snapshots;
  } cases[] = {{2000, 60, 1}, {1, 200, 2}};
  uint32_t next = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rewrites);
    agent.reset();  // the follower is let go while its rows are written
    follower->subscriber->follow(1ms);
    agent = std::make_unique<Agent>(directory.path(), 100);
    routes = &agent->table("routes");
    for (const uint32_t end = next + c.added; next < end; next += 20) write(next, next + 20);
    for (int i = 0; i < c.rewrites; ++i) write(1, 2, 10 + i);
    ASSERT_TRUE(received());
    EXPECT_EQ(follower->snapshots, c.snapshots);
    EXPECT_EQ(follower->rows["routes"].size(), next - 1);
  }
}

TEST_F(DatabaseTest, FormerRowsGoOnceTheyWereReceived) {
  ASSERT_TRUE(inStep());
  for (int i = 0; i < 50; ++i) batch([&] { routes->rowIs(route(1, 10 + i), 7); });
  ASSERT_TRUE(followUntil([&] { return agent->heard.size() == 50; }));
  const ActivityLock lock;
  agent->database->batchBegin();
  routes->rowIs(route(1, 1), 7);
  EXPECT_EQ(agent->database->batchEnd().reason(), "");
  agent->database->settle();
  EXPECT_GE(agent->store->trimmedUpTo() + 2, agent->store->committedSequence());
}

// A change settles when all attached followers have reported, or at the first failure; but each
// one's own word comes through.
TEST_F(DatabaseTest, SeveralFollowersDecideTogether) {
  Follower second(directory.path(), "second");
  std::vector<Subscriber*> both = {follower->subscriber.get(), second.subscriber.get()};
  ASSERT_TRUE(Agent::followUntil(both, [&] { return follower->snapshots && second.snapshots; }));
  follower->holdBack = second.holdBack = true;
  write(0, 3);
  ASSERT_TRUE(Agent::followUntil(
      both, [&] { return follower->held.size() == 3 && second.held.size() == 3; }));
  const auto heard = [&](size_t reports, int settled) {
    return Agent::followUntil(both, [&] {
      return agent->heard.size() == reports &&
             std::ranges::count(agent->heard, true, &Report::settles) == settled;
    });
  };
  follower->reportAll();
  follower->subscriber->flush();
  second.held.resize(2);
  second.reportAll(1, "f\xFFll\nto the brim");
  ASSERT_TRUE(heard(2, 2)) << "the second has not reported on the third yet";
  EXPECT_EQ(agent->heard[1].errorCode, 1);
  EXPECT_EQ(agent->texts[1], "f\xEF\xBF\xBDll to the brim");
  both.pop_back();
  second.subscriber.reset();  // the third change is then settled by the first's word alone
  ASSERT_TRUE(heard(3, 3));
  EXPECT_EQ(agent->heard[2].errorCode, 0);

  write(3, 4);
  ASSERT_TRUE(followUntil([&] { return follower->held.size() == 1; }));
  Follower late(directory.path(), "late");  // reports at once on its snapshot
  both.push_back(late.subscriber.get());
  ASSERT_TRUE(heard(7, 3)) << "the first has not reported on the last row yet";
  EXPECT_NE(agent->heard.back().subscriber, agent->heard[1].subscriber);
  follower->reportAll();
  ASSERT_TRUE(heard(8, 4));
}

// A follower that took a snapshot without them would take damaged rows out of the hardware.
TEST_F(DatabaseTest, DamagedRowsKeepAFollowerFromTakingASnapshotUntilTheyAreMended) {
  constexpr uint32_t first = 0x0a0b0c00;
  write(first, first + 10);
  ASSERT_TRUE(inStep());
  flipBehind(directory.file("brine.store"), route(first + 5, 1).key, 8);
  Follower late(directory.path(), "late");
  const auto trouble = [&] { return late.subscriber->trouble(); };
  ASSERT_TRUE(Agent::followUntil({late.subscriber.get()}, [&] {
    return trouble().find("damaged rows") != std::string::npos;
  })) << trouble();
  EXPECT_EQ(late.snapshots, 0u);
  write(first + 5, first + 6);  // as the agent does when it restores the entry
  ASSERT_TRUE(Agent::followUntil({late.subscriber.get()},
                                 [&] { return late.rows["routes"].size() == 10; }));
}

// Nor may it take a table for removed whose record alone is damaged.
TEST_F(DatabaseTest, ADamagedListOfTablesTakesNoTableFromAFollower) {
  write(0, 3);
  ASSERT_TRUE(inStep());
  flipBehind(directory.file("brine.store"), "routesType", 3);
  agent->table("more");
  ASSERT_TRUE(followUntil([&] {
    return follower->subscriber->trouble().find("is damaged") != std::string::npos;
  })) << follower->subscriber->trouble();
  EXPECT_EQ(follower->removed, 0u);
  EXPECT_EQ(follower->rows["routes"].size(), 3u);
}

// Rows hold settings that stand nowhere else.
TEST_F(DatabaseTest, ADamagedListOfTablesCostsNoRows) {
  write(0, 3, 7);
  ASSERT_TRUE(inStep());
  flipBehind(directory.file("brine.store"), "routesType", 3);
  restartAgent();
  EXPECT_EQ(routes->row(route(2, 7).key), route(2, 7));
  EXPECT_EQ(routes->rowEntryHandle(route(2, 7).key), 102u);
  write(3, 4, 7);
  ASSERT_TRUE(followUntil([&] { return follower->rows["routes"].size() == 4; }));
  agent.reset();
  flipBehind(directory.file("brine.store"), "routesType", 3);
  restartAgent("key dst : U32; nexthop_id : U32;");
  EXPECT_FALSE(routes->row(route(2, 7).key)) << "of another type";
}

// Some attachments were kept beside rows that stood: with the former type again, these rows were
// taken for others' and removed.
TEST(FullDatabaseTest, ATableOfAnotherTypeKeepsAllAttachmentsOrAllRows) {
  const TempDir directory;
  FailingStore store(directory.path());
  Vela::ReactorLoop loop;
  const ActivityLock lock;
  const auto database =
      Database::create(loop, store, {.doorbellPath = directory.file("doorbell.sock")});
  const auto bound = [&](const char* definition) {
    TheTypeRegistry().typeIs(TableType::compile("routesType", definition));
    auto table = Vela::make<ArTableInterface>("routes", "routesType", nullptr);
    database->bindInterface(table, "routes", true);
    return table;
  };
  const char* other = "key vrf_id : U16; key dst : U32; nexthop : U64;";
  auto routes = bound(routeType);
  for (uint32_t i = 0; i < 50; ++i) routes->rowIs(route(i, 1), i + 1, "record");
  ASSERT_TRUE(database->commit().ok());
  store.writesLeft = 20;
  EXPECT_THROW(bound(other), Brine::StoreError);
  store.writesLeft = SIZE_MAX;
  EXPECT_TRUE(database->commit().ok());
  EXPECT_EQ(database->kept("routes").size(), 0u);
  routes = bound(routeType);
  EXPECT_EQ(routes->rowCount(), 50u);
  routes = bound(other);
  EXPECT_EQ(routes->rowCount(), 0u);
  EXPECT_EQ(database->kept("routes").size(), 50u);
}

TEST(FullDatabaseTest, AFullStateDirectoryRefusesRowsAndKeepsTheOthers) {
  const TempDir directory;
  const std::string small = directory.file("small");
  std::filesystem::create_directory(small);
  if (mount("korvel-test", small.c_str(), "tmpfs", 0, "size=5m,mode=0700") != 0) {
    GTEST_SKIP() << "mounting a small tmpfs needs root";
  }
  {
    Agent agent(small);
    auto& routes = agent.table("routes");
    Follower follower(small);
    uint32_t rows = 0;
    {
      const ActivityLock lock;
      agent.database->batchBegin();
      try {
        for (; rows < 1000000; ++rows) routes.rowIs(route(rows, 1), rows + 1);
        FAIL() << "five million bytes hold no million rows";
      } catch (const Brine::StoreError& e) {
        EXPECT_NE(std::string(e.what()).find(small), std::string::npos);
      }
      EXPECT_TRUE(agent.database->batchEnd().ok());
      EXPECT_EQ(routes.rowCount(), rows);
    }
    EXPECT_TRUE(Agent::followUntil({follower.subscriber.get()},
                                   [&] { return follower.rows["routes"].size() == rows; }));
  }
  umount2(small.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace Lattice
