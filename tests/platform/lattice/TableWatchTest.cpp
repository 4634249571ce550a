// Rows that follow from others join the commit of those, or are lost with it.
#include "platform/lattice/TableWatch.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

// Keeps `mirror` equal to `routes`, and `last` to `mirror`, which it watches as well.
struct TableWatchTest : testing::Test, CommitObserver {
  TempDir directory;
  std::unique_ptr<Agent> agent = std::make_unique<Agent>(directory.path());
  ArTableInterface* routes = &agent->table("routes");
  ArTableInterface* mirror = &agent->table("mirror");
  ArTableInterface* last = &agent->table("last");
  std::unique_ptr<TableWatch> routesWatch, mirrorWatch;
  size_t asked = 0, commits = 0, discards = 0, batches = 0;
  std::string seen, gone;
  bool failing = false;

  TableWatchTest() {
    const ActivityLock lock;
    agent->database->commitObserverIs(this);
    routesWatch = agent->database->watch("routes");
    mirrorWatch = agent->database->watch("mirror");
  }
  ~TableWatchTest() override {
    const ActivityLock lock;
    agent->database->commitObserverIs(nullptr);
  }

  static void copyChanges(TableWatch& from, ArTableInterface& to) {
    for (const ChangedRow& row : from.changes()) {
      row.after ? to.rowIs({row.key, *row.after}, 5) : to.rowDel(row.key, 5);
    }
  }
  void onBeforeCommit() override {
    ++asked;
    for (const ChangedRow& row : routesWatch->changes()) {
      seen += std::to_string(static_cast<int>(row.key.back()));
      seen += row.before ? (row.after ? "~ " : "- ") : "+ ";
    }
    copyChanges(*routesWatch, *mirror);
    copyChanges(*mirrorWatch, *last);
    if (failing) throw std::runtime_error("no room");
  }
  void onCommitted() override { ++commits; }
  void onDiscarded() override { ++discards; }
  void onBatchEnded() override { ++batches; }
  void onWatchedTableGone(const std::string& name) override { gone += name; }

  std::string sawSince() { return std::exchange(seen, ""); }
  size_t copies() const {
    EXPECT_EQ(mirror->rowCount(), last->rowCount());
    return last->rowCount();
  }
};

TEST_F(TableWatchTest, DerivedRowsAreInTheSameCommit) {
  {
    const ActivityLock lock;
    routes->rowIs(route(1, 1), 1);
    routes->rowIs(route(2, 1), 1);
    routes->rowIs(route(3, 1), 1);
    routes->rowDel(route(3, 1).key, 1);
  }
  EXPECT_EQ(sawSince(), "1+ 2+ ");
  {
    const ActivityLock lock;
    agent->database->batchBegin();
    routes->rowIs(route(1, 1), 1);  // as it is
    routes->rowDel(route(2, 1).key, 1);
    routes->rowIs(route(4, 1), 1);
    routes->rowIs(route(4, 2), 1);
    EXPECT_EQ(copies(), 2u);
    EXPECT_EQ(agent->database->batchEnd().reason(), "");
    EXPECT_EQ(copies(), 2u);
    EXPECT_EQ(last->row(route(4, 2).key)->value, route(4, 2).value);
  }
  EXPECT_EQ(sawSince(), "2- 4+ ");
  EXPECT_EQ(asked, 2u);
  EXPECT_EQ(batches, 1u);
}

TEST_F(TableWatchTest, AFailedCommitLosesDerivedRowsToo) {
  {
    const ActivityLock lock;
    routes->rowIs(route(1, 1), 1);
  }
  failing = true;
  {
    const ActivityLock lock;
    agent->database->batchBegin();
    routes->rowIs(route(1, 2), 1);
    routes->rowIs(route(2, 2), 1);
    EXPECT_EQ(agent->database->batchEnd().reason(), "no room");
    EXPECT_EQ(copies(), 1u);
  }
  EXPECT_EQ(discards, 1u);
  failing = false;
  const ActivityLock lock;
  EXPECT_EQ(last->row(route(1, 1).key)->value, route(1, 1).value);
  EXPECT_TRUE(routesWatch->changes().empty());
}

TEST_F(TableWatchTest, WatchesEndWithHolderOrTable) {
  const ActivityLock lock;
  EXPECT_EQ(agent->database->watch("nowhere"), nullptr);
  agent->database->batchBegin();
  EXPECT_THROW(agent->database->watch("routes"), std::logic_error);
  EXPECT_EQ(agent->database->batchEnd().reason(), "");
  mirrorWatch.reset();
  agent->table("mirror");
  EXPECT_EQ(gone, "");
  routes = &agent->table("routes");
  EXPECT_EQ(gone, "routes");
  routes->rowIs(route(1, 1), 1);
  EXPECT_TRUE(routesWatch->changes().empty());
}

}  // namespace
}  // namespace Lattice
