// Connections wait in a bounded queue, and none is lost.
#include "P4Runtime/monitoring/HttpWorkers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "tests/support/Waiting.h"

namespace P4Runtime {
namespace {

TEST(HttpWorkers, TakeABoundedNumberAndDoThemAll) {
  HttpWorkers workers;
  std::promise<void> goes;
  const std::shared_future<void> go = goes.get_future().share();
  std::atomic<int> taken = 0;
  std::atomic<int> begun = 0;
  std::atomic<int> done = 0;
  constexpr int all = 100;
  std::thread accepting([&] {
    for (int i = 0; i < all; ++i) {
      workers.enqueue([&] {
        ++begun;
        go.wait();
        ++done;
      });
      ++taken;
    }
  });
  // Sixteen are being served and sixteen wait; the next one is not taken before one is done.
  EXPECT_TRUE(TestSupport::waitUntil([&] { return begun == 16 && taken == 32; }));
  EXPECT_EQ(taken, 32);
  goes.set_value();
  accepting.join();
  workers.shutdown();
  EXPECT_EQ(done, all);
}

}  // namespace
}  // namespace P4Runtime
