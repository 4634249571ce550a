// The loop with its posts, timers and descriptors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "platform/vela/ActivityLock.h"
#include "platform/vela/Failure.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/Timer.h"

namespace Vela {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

class Event {
 public:
  Event() : fd(eventfd(0, EFD_NONBLOCK)) {}
  ~Event() { close(fd); }
  void raise() const {
    const uint64_t one = 1;
    EXPECT_EQ(write(fd, &one, sizeof one), 8);
  }
  uint64_t take() const {
    uint64_t count = 0;
    return read(fd, &count, sizeof count) == 8 ? count : 0;
  }
  const int fd;
};

TEST(ReactorLoop, RunsPostsInOrderOnItsThreadUnderTheLock) {
  ReactorLoop loop;
  std::vector<int> ran;
  loop.post([&] {
    EXPECT_TRUE(ActivityLock::held());
    EXPECT_TRUE(loop.onThread());
    ran.push_back(1);
    loop.post([&] {
      ran.push_back(3);
      loop.stop();
    });
  });
  loop.post([&] { ran.push_back(2); });
  loop.run();
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
  EXPECT_FALSE(loop.onThread());
}

TEST(ReactorLoop, TakesPostsFromThreads) {
  ReactorLoop loop;
  int ran = 0;  // the loop's thread alone
  constexpr int each = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < each; ++i) {
        loop.post([&] {
          if (++ran == 4 * each) loop.stop();
        });
      }
    });
  }
  loop.run();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ran, 4 * each);
}

TEST(ReactorLoop, StopBeforeRunEndsThatRunOnly) {
  ReactorLoop loop;
  loop.stop();
  loop.run();
  bool ran = false;
  loop.post([&] {
    loop.post([&] {
      ran = true;
      loop.stop();
    });
  });
  loop.run();
  EXPECT_TRUE(ran);
}

TEST(ReactorLoop, DropsWhatWasNeverRunUnderTheLock) {
  bool held = false;
  struct Probe {
    bool& held;
    ~Probe() { held = ActivityLock::held(); }
  };
  {
    ReactorLoop loop;
    loop.post([probe = std::make_shared<Probe>(held)] {});
  }
  EXPECT_TRUE(held);
}

TEST(Timer, ExpiresOnceOrAgainAndMayDestroyItself) {
  ReactorLoop loop;
  int periods = 0;
  bool stopped = true;
  std::optional<Timer> once, never;
  Timer again(loop, [&] {
    EXPECT_TRUE(ActivityLock::held());
    if (++periods == 3) loop.stop();
  });
  once.emplace(loop, [&] {
    once.reset();
    again.start(milliseconds(0), milliseconds(1));
  });
  never.emplace(loop, [&] { stopped = false; });
  never->start(milliseconds(0));
  never->stop();
  once->start(milliseconds(0));
  loop.run();
  EXPECT_EQ(periods, 3);
  EXPECT_FALSE(once);
  EXPECT_TRUE(stopped);
}

TEST(FileDescriptor, IsReadableUntilItIsRead) {
  ReactorLoop loop;
  const Event event;
  const auto descriptor = make<FileDescriptor>(loop, "signalFd");
  std::vector<uint64_t> taken;
  int calls = 0;
  descriptor->nonBlockingIs(true);
  descriptor->descriptorIs(event.fd);
  descriptor->onReadableIs([&] {
    EXPECT_TRUE(ActivityLock::held());
    if (++calls < 3) return;  // still readable: we are called again
    taken.push_back(event.take());
    loop.stop();
  });
  event.raise();
  std::thread([&] { event.raise(); }).join();
  loop.run();
  EXPECT_THAT(taken, ElementsAre(2));
  EXPECT_EQ(calls, 3);
}

TEST(FileDescriptor, ItsCallbackMayStopItMoveItOrDestroyIt) {
  ReactorLoop loop;
  const Event first, second;
  std::vector<std::string> told;
  auto descriptor = make<FileDescriptor>(loop, "fd");
  descriptor->descriptorIs(first.fd);
  descriptor->onReadableIs([&] {
    told.push_back("first");
    descriptor->descriptorIs(second.fd);
    descriptor->onReadableIs([&, kept = std::string(50, 'k')] {
      told.push_back("second");
      descriptor = nullptr;
      told.push_back(std::to_string(kept.size()));
      loop.post([&] { loop.stop(); });
    });
  });
  first.raise();
  second.raise();
  loop.run();
  EXPECT_THAT(told, ElementsAre("first", "second", "50"));
}

TEST(FileDescriptor, WritableAndHangUpAreTold) {
  ReactorLoop loop;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  FileDescriptor in(loop, "in"), out(loop, "out");  // not shared: nobody may delete them
  in.descriptorIs(ends[0]);
  out.descriptorIs(ends[1]);
  bool hungUp = false;
  in.onReadableIs([&] {
    char byte;
    hungUp = read(ends[0], &byte, 1) == 0;
    in.descriptorIs(-1);
    loop.stop();
  });
  out.onWritableIs([&] {
    out.descriptorIs(-1);
    close(ends[1]);
  });
  loop.run();
  EXPECT_TRUE(hungUp);
  close(ends[0]);
}

// Notices of attributes reach observers on any thread; their calls on sockets went to
// libuv at once, beside the loop's thread, until an assertion there ended the agent.
TEST(FileDescriptor, AnyThreadMayWatchStopAndDestroyIt) {
  ReactorLoop loop;
  std::atomic<int> told{0};
  std::vector<std::thread> threads;
  std::thread runner([&] { loop.run(); });
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 500; ++round) {
        const Event event;  // its number comes again soon
        const int before = told;
        {
          const ActivityLock lock;
          auto descriptor = make<FileDescriptor>(loop, "fd");
          auto timer = std::make_unique<Timer>(loop, [&] { ++told; });
          descriptor->onReadableIs([] {});
          descriptor->descriptorIs(event.fd);
          descriptor->onWritableIs([&] { ++told; });
          timer->start(milliseconds(0), milliseconds(1));
          const ActivityLockReleased released;
          event.raise();
          while (told == before) std::this_thread::yield();
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  loop.stop();
  runner.join();
  EXPECT_GE(told, 500);
}

TEST(ReactorLoopDeathTest, ExceptionsOfCallbacksEndTheProcessWithALine) {
  const auto fail = [] { throw std::runtime_error("the state is gone"); };
  const struct {
    const char* what;
    std::function<void()> run;
  } cases[] = {
      {"post",
       [&] {
         ReactorLoop loop;
         loop.post(fail);
         loop.run();
       }},
      {"timer",
       [&] {
         ReactorLoop loop;
         Timer timer(loop, fail);
         timer.start(milliseconds(0));
         loop.run();
       }},
      {"descriptor",
       [&] {
         ReactorLoop loop;
         const Event event;
         event.raise();
         FileDescriptor descriptor(loop, "fd");
         descriptor.descriptorIs(event.fd);
         descriptor.onReadableIs(fail);
         loop.run();
       }},
      {"thread", [&] { startThread("fail", fail).join(); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EXIT(c.run(), testing::ExitedWithCode(1), "vela_test: .*the state is gone\n$");
  }
}

TEST(FileDescriptor, RefusesWhatCannotBeWatched) {
  ReactorLoop loop;
  FILE* file = tmpfile();
  FileDescriptor descriptor(loop, "a file");
  descriptor.onReadableIs([] {});
  EXPECT_THROW(descriptor.descriptorIs(fileno(file)), std::system_error);
  fclose(file);
}

}  // namespace
}  // namespace Vela
