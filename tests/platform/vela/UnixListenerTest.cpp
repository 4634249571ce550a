// Places where a socket may stand, files that it may replace, and callers when descriptors run out.
#include "platform/vela/UnixListener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <system_error>

#include "tests/support/DescriptorLimit.h"
#include "tests/support/TempDir.h"

namespace Vela {
namespace {

namespace fs = std::filesystem;
using Turn = UnixListener::Turn;

class UnixListenerTest : public testing::Test {
 protected:
  std::string refusalAt(const fs::path& at, int* code) {
    try {
      const UnixListener listener({.path = at});
    } catch (const std::system_error& e) {
      *code = e.code().value();
      return e.what();
    }
    *code = 0;
    return "none";
  }
  static void connectTo(const UniqueFd& socket, const std::string& path) {
    const UnixAddress address(path);
    EXPECT_EQ(connect(socket.get(), address.get(), UnixAddress::size()), 0);
  }
  static UniqueFd streamSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  }

  const TestSupport::TempDir folder;
  const fs::path directory = folder.path();
  fs::path path = directory / "x.sock";
  fs::path at;
  std::optional<UnixListener> kept;
};

TEST_F(UnixListenerTest, StandsOnlyWhereNobodyElseCanReach) {
  const struct {
    const char* what;
    std::function<void()> prepare;
    int error;
  } cases[] = {
      {"nothing there", [] {}, 0},
      {"a file", [&] { std::ofstream(path) << "precious"; }, EEXIST},
      {"a link to a file", [&] { fs::create_symlink(directory / "target", path); }, EEXIST},
      {"somebody listens on another type of socket",
       [&] { kept.emplace(UnixListenerOptions{.path = path, .type = SOCK_SEQPACKET}); },
       EADDRINUSE},
      {"other users may write",
       [&] { fs::permissions(directory, fs::perms::others_write, fs::perm_options::add); }, EPERM},
      {"a linked directory",
       [&] {
         fs::create_directory_symlink(directory, directory / "link");
         at = directory / "link/x.sock";
       },
       ENOTDIR},
      {"no directory", [&] { at = directory / "none/x.sock"; }, ENOENT},
      {"a name too long", [&] { at = directory / std::string(200, 'x'); }, ENAMETOOLONG},
      {"a long way to it",
       [&] {
         fs::create_directory(directory / std::string(150, 'd'));
         at = directory / std::string(150, 'd') / "x.sock";
       },
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    at = path;
    c.prepare();
    int error = 0;
    const std::string refusal = refusalAt(at, &error);
    EXPECT_EQ(error, c.error) << refusal;
    const bool taken = c.error == EEXIST || c.error == EADDRINUSE;
    EXPECT_EQ(fs::exists(fs::symlink_status(path)), taken) << "not ours to remove";
    kept.reset();
    fs::permissions(directory, fs::perms::owner_all);
    for (const auto& entry : fs::directory_iterator(directory)) fs::remove_all(entry.path());
  }
}

TEST_F(UnixListenerTest, ReplacesTheDeadAndNotTheLiving) {
  const UniqueFd dead = streamSocket();
  {
    const UnixAddress address(path);
    ASSERT_EQ(bind(dead.get(), address.get(), UnixAddress::size()), 0);
  }
  const mode_t before = umask(0);
  std::optional<UnixListener> first(std::in_place, UnixListenerOptions{.path = path});
  umask(before);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  int error = 0;
  EXPECT_THAT(refusalAt(path, &error), testing::HasSubstr("another process does; stop it"));
  EXPECT_TRUE(first->inPlace());
  {
    const UnixListener heir({.path = path, .alive = [](int) { return false; }});
    EXPECT_FALSE(first->inPlace());
    first.reset();
    EXPECT_TRUE(heir.inPlace()) << "removed by its predecessor";
  }
  EXPECT_FALSE(fs::exists(path));
}

// Without a descriptor to spare the caller stayed in the queue, and the socket readable: the
// watcher turned round and round, or looked away for good.
TEST_F(UnixListenerTest, TurnsCallersAwayWithoutDescriptorsAndTakesThemLater) {
  UnixListener listener({.path = path});
  const auto readable = [&] {
    pollfd watched{listener.descriptor(), POLLIN, 0};
    return poll(&watched, 1, 0) == 1;
  };
  const UniqueFd callers[] = {streamSocket(), streamSocket(), streamSocket(), streamSocket()};
  UnixListener::Caller caller;
  {
    TestSupport::DescriptorLimit limit(128);
    limit.exhaust();
    for (const UniqueFd* one : {&callers[0], &callers[1]}) {
      connectTo(*one, path);
      ASSERT_EQ(listener.accept(&caller), Turn::caller);
      EXPECT_THAT(caller.refusal, testing::HasSubstr("no file descriptor is left"));
      caller = {};
      EXPECT_EQ(listener.accept(&caller), Turn::nobody) << "the spare one is back";
      EXPECT_FALSE(readable());
    }
    limit.releaseOne();
    connectTo(callers[2], path);
    ASSERT_EQ(listener.accept(&caller), Turn::caller);
    EXPECT_THAT(caller.refusal, testing::HasSubstr("no file descriptor is left"))
        << "it has the last one";
    caller = {};
  }
  connectTo(callers[3], path);
  ASSERT_EQ(listener.accept(&caller), Turn::caller);
  EXPECT_EQ(caller.refusal, "");
  EXPECT_EQ(caller.pid, getpid());
}

}  // namespace
}  // namespace Vela
