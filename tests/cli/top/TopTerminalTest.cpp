// `korvel top` in a terminal: it draws and refreshes, fits the window, and leaves all as it was.
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/orrery/Server.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using TestSupport::waitUntil;

constexpr const char* begins = "\x1b[?1049h\x1b[?25l";
constexpr const char* leaves = "\x1b[?25h\x1b[?1049l";

// A status as the agent shows it. Test and reactor use it with the activity lock held.
class Status final : public Vela::Entity {
 public:
  explicit Status(std::string name) : Entity(std::move(name)) {
    operationIs({"show", {}, [this](const auto&) {
                   return fmt::format(
                       R"({{"seconds": {}, "agent": {{"serverReady": true, "forwardingAgents": 1,
                            "deviceId": 7, "serverAddress": "127.0.0.1:9559"}},
                           "tables": [{{"name": "routes", "entries": {}, "size": 0}},
                                      {{"name": "hosts", "entries": 1, "size": 8}}]}})",
                       ++seconds_, entries);
                 }});
  }
  const char* typeName() const override { return "Test::Status"; }

  int entries = 100;

 private:
  int seconds_ = 0;
};

// A process whose terminal the test holds.
class Terminal {
 public:
  Terminal(std::vector<std::string> words, winsize size) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int slave = -1;
    if (openpty(&master_, &slave, nullptr, nullptr, &size) != 0) {
      throw std::system_error(errno, std::generic_category(), "openpty");
    }
    before_ = settings();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      login_tty(slave);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    close(slave);
    fcntl(master_, F_SETFL, O_NONBLOCK);
  }
  ~Terminal() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(master_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  const std::string& output() {
    char block[4096];
    for (ssize_t size = 0; (size = read(master_, block, sizeof block)) > 0;) {
      output_.append(block, static_cast<size_t>(size));
    }
    return output_;
  }
  bool shows(const std::string& text) {
    return waitUntil([&] { return frameText().find(text) != std::string::npos; });
  }
  void type(const char* keys) { EXPECT_GT(write(master_, keys, strlen(keys)), 0); }
  void signal(int number) const { ::kill(pid_, number); }
  void sizeIs(winsize size) const { EXPECT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0); }
  // Keys come line by line and are shown, as before the process.
  bool isAsItWas() const {
    const termios now = settings();
    return now.c_lflag == before_.c_lflag && now.c_iflag == before_.c_iflag &&
           now.c_oflag == before_.c_oflag;
  }
  // Of exit(); -1 when a signal ended it, or it does not end.
  int exitCode() {
    int status = 0;
    const bool ends = waitUntil([&] {
      output();
      return waitpid(pid_, &status, WNOHANG) == pid_;
    });
    if (!ends) return -1;
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // The lines of the newest whole picture.
  std::vector<std::string> frame() {
    std::vector<std::string> lines;
    std::string text = frameText();
    for (size_t end = 0; (end = text.find("\r\n")) != std::string::npos; text.erase(0, end + 2)) {
      lines.push_back(text.substr(0, text.find("\x1b[K")));
    }
    return lines;
  }

 private:
  termios settings() const {
    termios found{};
    EXPECT_EQ(tcgetattr(master_, &found), 0);
    return found;
  }
  std::string frameText() {
    const size_t end = output().rfind("\x1b[J");
    if (end == std::string::npos) return "";
    const size_t begin = output_.rfind("\x1b[H", end);
    return output_.substr(begin + 3, end - begin - 3);
  }

  int master_ = -1;
  pid_t pid_ = 0;
  termios before_{};
  std::string output_;
};

class TopTerminal : public testing::Test {
 protected:
  TopTerminal() {
    const Vela::ActivityLock lock;
    database->entityIs("p4runtime/status/monitoring", status);
    server.emplace(loop, *database, folder.file("orrery.sock"));
    thread = std::thread([this] { loop.run(); });
  }
  ~TopTerminal() override {
    loop.stop();
    thread.join();
    const Vela::ActivityLock lock;
    server.reset();
  }

  std::vector<std::string> command(const std::string& seconds) const {
    return {TestSupport::binaryPath("korvel"),
            "top",
            "--seconds",
            seconds,
            "--state-dir",
            folder.path()};
  }
  void entriesAre(int entries) const {
    const Vela::ActivityLock lock;
    status->entries = entries;
  }

  const TestSupport::TempDir folder;
  Vela::ReactorLoop loop;
  const std::unique_ptr<Orrery::Database> database = Orrery::embeddedDatabase(loop);
  const Vela::Ptr<Status> status = Vela::make<Status>("monitoring");
  std::optional<Orrery::Server> server;
  std::thread thread;
};

constexpr winsize usual{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
constexpr const char* never = "3600";

TEST_F(TopTerminal, DrawsAndRefreshes) {
  Terminal terminal(command("0.1"), usual);
  EXPECT_TRUE(terminal.shows("korvel serving  device 7  127.0.0.1:9559"));
  EXPECT_THAT(terminal.output(), testing::StartsWith(begins));
  entriesAre(4321);
  EXPECT_TRUE(terminal.shows("4,321"));
  terminal.type("x");  // is no command
  entriesAre(56789);
  EXPECT_TRUE(terminal.shows("56,789"));
}

TEST_F(TopTerminal, LeavesTheTerminalAsItWas) {
  const struct {
    const char* what;
    std::function<void(Terminal&)> end;
  } cases[] = {
      {"q", [](Terminal& terminal) { terminal.type("q"); }},
      {"q behind other keys", [](Terminal& terminal) { terminal.type("\x04 xq"); }},
      {"Ctrl-C", [](Terminal& terminal) { terminal.type("\x03"); }},
      {"SIGTERM", [](Terminal& terminal) { terminal.signal(SIGTERM); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Terminal terminal(command(never), usual);
    ASSERT_TRUE(terminal.shows("korvel serving"));
    EXPECT_FALSE(terminal.isAsItWas()) << "keys come one by one";
    c.end(terminal);
    EXPECT_EQ(terminal.exitCode(), 0);
    EXPECT_THAT(terminal.output(), EndsWith(leaves));
    EXPECT_TRUE(terminal.isAsItWas());
  }
}

// Its last words stand on the screen that the user sees then.
TEST_F(TopTerminal, SaysWhyItEndsOnceTheTerminalIsAsItWas) {
  Terminal terminal(command("0.1"), usual);
  ASSERT_TRUE(terminal.shows("korvel serving"));
  {
    const Vela::ActivityLock lock;
    database->entityDel("p4runtime/status/monitoring");
  }
  EXPECT_EQ(terminal.exitCode(), 1);
  const std::string output = terminal.output();
  const size_t left = output.find(leaves);
  ASSERT_NE(left, std::string::npos);
  EXPECT_THAT(output.substr(left), HasSubstr("korvel: there is no path"));
  EXPECT_TRUE(terminal.isAsItWas());
}

// It is drawn again at once, with a line left for the cursor.
TEST_F(TopTerminal, FitsTheWindowAlsoAfterAChange) {
  Terminal terminal(command(never), usual);
  ASSERT_TRUE(terminal.shows("hosts"));
  for (const winsize size : {winsize{4, 30, 0, 0}, winsize{1, 1, 0, 0}, winsize{2, 1, 0, 0},
                             winsize{3, 500, 0, 0}, winsize{50, 7, 0, 0}, usual}) {
    SCOPED_TRACE(fmt::format("{} rows, {} columns", size.ws_row, size.ws_col));
    const size_t drawn = terminal.output().size();
    terminal.sizeIs(size);
    EXPECT_TRUE(
        waitUntil([&] { return terminal.output().find("\x1b[J", drawn) != std::string::npos; }));
    const auto lines = terminal.frame();
    EXPECT_LT(lines.size(), size.ws_row);
    for (const std::string& line : lines) EXPECT_LE(line.size(), size.ws_col) << line;
  }
  EXPECT_TRUE(terminal.shows("hosts"));
}

TEST_F(TopTerminal, PrintsOnePictureIntoAPipe) {
  auto words = command("0.1");
  words.emplace_back("--once");
  const auto once = TestSupport::run(words);
  EXPECT_EQ(once.exit.code, 0) << once.error;
  EXPECT_THAT(once.output, HasSubstr("korvel serving  device 7"));
  EXPECT_THAT(once.output, HasSubstr("\nroutes "));
  EXPECT_THAT(once.output, Not(HasSubstr("\x1b")));
  words.pop_back();
  const auto refused = TestSupport::run(words);
  EXPECT_EQ(refused.exit.code, 1);
  EXPECT_THAT(refused.error, HasSubstr("'korvel top --once' prints one picture"));
  EXPECT_EQ(refused.output, "");
}

}  // namespace
