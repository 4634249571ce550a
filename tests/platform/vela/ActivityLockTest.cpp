// The activity lock: recursion, giving it up wholly, and the hooks at the end of a scope.
#include "platform/vela/ActivityLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Vela {
namespace {

using ::testing::ElementsAre;

TEST(ActivityLock, NestsAndIsGivenUpWhollyAtAnyDepth) {
  EXPECT_FALSE(ActivityLock::held());
  const ActivityLockReleased none;  // without the lock: nothing to give up
  EXPECT_EQ(ActivityLock::depth(), 0u);
  const ActivityLock outer;
  const ActivityLock inner;
  EXPECT_EQ(ActivityLock::depth(), 2u);
  {
    const ActivityLockReleased released;
    EXPECT_FALSE(ActivityLock::held());
    bool taken = false;
    std::thread([&] {
      const ActivityLock other;
      taken = true;
    }).join();
    EXPECT_TRUE(taken);
    const ActivityLock again;  // a reaction may run in between
    EXPECT_EQ(ActivityLock::depth(), 1u);
  }
  EXPECT_EQ(ActivityLock::depth(), 2u);
}

TEST(ActivityLock, SerialisesThreads) {
  int value = 0;  // guarded by the lock; ThreadSanitizer watches
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&value] {
      for (int i = 0; i < 2000; ++i) {
        const ActivityLock lock;
        const ActivityLock nested;
        ++value;
        if (i % 100 == 0) {
          const ActivityLockReleased released;
        }
        ++value;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(value, 4 * 2000 * 2);
}

TEST(ScopeEndHook, RunsWheneverTheLockIsGivenUp) {
  std::vector<std::string> ran;
  std::optional<ScopeEndHook> first, second;
  {
    const ActivityLock lock;
    first.emplace([&] {
      const ActivityLock nested;  // must not run the hooks once more
      ran.push_back("first");
    });
    second.emplace([&] { ran.push_back("second"); });
    { const ActivityLock nested; }
    EXPECT_THAT(ran, ElementsAre()) << "not the outermost scope";
    {
      const ActivityLockReleased released;
      EXPECT_THAT(ran, ElementsAre("first", "second"));
    }
    first.reset();
  }
  EXPECT_THAT(ran, ElementsAre("first", "second", "second"));
  const ActivityLock lock;
  second.reset();
}

TEST(ScopeEndHook, MayComeAndGoWhileHooksRun) {
  std::vector<std::string> ran;
  std::vector<std::unique_ptr<ScopeEndHook>> added;
  std::optional<ScopeEndHook> self, after;
  {
    const ActivityLock lock;
    self.emplace([&, keptAlive = std::string(100, 'x')] {
      self.reset();
      for (int i = 0; i < 20; ++i) {
        added.push_back(std::make_unique<ScopeEndHook>([&] { ran.push_back("added"); }));
      }
      ran.push_back("self" + std::to_string(keptAlive.size()));
    });
    after.emplace([&] { ran.push_back("after"); });
  }
  ASSERT_EQ(ran.size(), 22u);
  EXPECT_EQ(ran[0], "self100");
  EXPECT_EQ(ran[1], "after");
  ran.clear();
  {
    const ActivityLock lock;
    added.clear();
  }
  EXPECT_THAT(ran, ElementsAre("after"));
  const ActivityLock lock;
  after.reset();
}

}  // namespace
}  // namespace Vela
