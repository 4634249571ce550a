// Who is remembered as one that does not learn of other types.
#include "platform/lattice/doorbell/FixedTypes.h"

#include <gtest/gtest.h>

#include "platform/vela/ActivityLock.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

struct FixedTypesTest : testing::Test {
  FixedTypesTest() { restart(); }

  // Another process of the agent's.
  void restart() {
    types.reset();
    store.reset();
    store = Brine::Store::open({.directory = directory.path()});
    types.emplace(*store);
  }
  void attach(const std::string& name, bool learnsTypes = false) {
    if (types->attachedIs(name, learnsTypes)) store->commit();
  }

  const Vela::ActivityLock lock;
  TestSupport::TempDir directory;
  std::unique_ptr<Brine::Store> store;
  std::optional<FixedTypes> types;
};

TEST_F(FixedTypesTest, AreRememberedUntilAllHaveLearnt) {
  EXPECT_TRUE(types->none());
  EXPECT_TRUE(types->attachedIs("a", false));
  EXPECT_FALSE(types->attachedIs("a", false)) << "nothing is new";
  store->commit();
  attach("");
  restart();
  EXPECT_FALSE(types->none());
  attach("a", true);
  attach("b", true);
  EXPECT_FALSE(types->none());
  attach("", true);
  EXPECT_TRUE(types->none());
  restart();
  EXPECT_TRUE(types->none());
}

TEST_F(FixedTypesTest, AreTooManyToBeNamed) {
  for (int i = 0; i < 300; ++i) attach(std::to_string(i));
  for (int i = 0; i < 300; ++i) attach(std::to_string(i), true);
  EXPECT_FALSE(types->none()) << "some of them may not have come back";
  restart();
  EXPECT_FALSE(types->none());
  EXPECT_LT(store->count(store->table("lattice/fixedTypes")), 300u);
}

TEST_F(FixedTypesTest, ACommitThatFailsForgetsNobody) {
  types->attachedIs("a", false);
  store->discard();
  types->handleDiscarded();
  store->commit();
  restart();
  EXPECT_FALSE(types->none());
}

TEST_F(FixedTypesTest, KnowWhoMissedTheLastType) {
  const auto put = [&] {
    store->put(store->table("rows"), Brine::asBytes("key"), Brine::asBytes("value"));
    store->commit();
    return store->committedSequence();
  };
  const uint64_t before = put();
  EXPECT_FALSE(types->isRetypedAfter(0));
  types->retyped();
  store->commit();
  EXPECT_TRUE(types->isRetypedAfter(before));
  EXPECT_FALSE(types->isRetypedAfter(put()));
  restart();
  EXPECT_TRUE(types->isRetypedAfter(before));
}

}  // namespace
}  // namespace Lattice
