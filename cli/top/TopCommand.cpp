#include "cli/top/TopCommand.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "cli/client/ClientOptions.h"
#include "cli/top/TopScreen.h"
#include "platform/orrery/Client.h"

namespace {

using Vela::Json;

constexpr const char* statusPath = "p4runtime/status/monitoring";
constexpr size_t endless = 100000;  // lines, where nothing scrolls away

struct TopOptions : ClientOptions {
  double seconds = 1;
  bool once = false;
};

volatile std::sig_atomic_t ended = 0;
volatile std::sig_atomic_t resized = 0;

// Why a wait is over.
enum class Wake { time, resized, leave };

Json statusOf(Orrery::Client& client) {
  const Json answer = client.call(statusPath, "show", {});
  const char* text = Vela::stringMember(*answer, "answer");
  Json status = text ? Vela::parseJson(text) : nullptr;
  if (!status)
    throw std::runtime_error("the agent does not show its status as this command needs it");
  return status;
}

ScreenSize terminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
    return {endless, 200};
  }
  return {size.ws_row - 1u, size.ws_col};
}

// Keys come one by one and unseen while it lives, and the picture has a screen of its own.
class Terminal {
 public:
  Terminal() {
    isOwn_ = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &former_) == 0;
    if (isOwn_) {
      termios raw = former_;
      raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    fmt::print("\x1b[?1049h\x1b[?25l");
  }
  ~Terminal() {
    fmt::print("\x1b[?25h\x1b[?1049l");
    std::fflush(stdout);
    if (isOwn_) tcsetattr(STDIN_FILENO, TCSANOW, &former_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void show(const std::vector<std::string>& lines) {
    fmt::print("\x1b[H");
    for (const std::string& line : lines) fmt::print("{}\x1b[K\n", line);
    fmt::print("\x1b[J");
    std::fflush(stdout);
  }
  Wake wait(std::chrono::milliseconds time) {
    pollfd keys{isOwn_ ? STDIN_FILENO : -1, POLLIN, 0};
    const bool hasKey = poll(&keys, 1, static_cast<int>(time.count())) > 0;
    if (ended != 0) return Wake::leave;
    char key = 0;
    if (hasKey && (read(STDIN_FILENO, &key, 1) != 1 || key == 'q')) return Wake::leave;
    return std::exchange(resized, 0) != 0 ? Wake::resized : Wake::time;
  }

 private:
  termios former_{};
  bool isOwn_ = false;
};

void printOnce(Orrery::Client& client, std::chrono::milliseconds period) {
  const Json before = statusOf(client);
  std::this_thread::sleep_for(period);
  const Json now = statusOf(client);
  for (const auto& line : topLines(*before, *now, {endless, terminalSize().columns})) {
    fmt::print("{}\n", line);
  }
}

void show(Orrery::Client& client, std::chrono::milliseconds period) {
  std::signal(SIGINT, [](int) { ended = 1; });
  std::signal(SIGTERM, [](int) { ended = 1; });
  std::signal(SIGWINCH, [](int) { resized = 1; });
  Terminal terminal;
  Json before;
  Json now = statusOf(client);
  for (Wake wake = Wake::resized; wake != Wake::leave; wake = terminal.wait(period)) {
    if (wake == Wake::time) {
      before = std::move(now);
      now = statusOf(client);
    }
    terminal.show(topLines(before ? *before : *now, *now, terminalSize()));
  }
}

void runTop(const TopOptions& options) {
  Orrery::Client client(options.stateDirectory);
  const auto period = std::chrono::milliseconds(static_cast<int64_t>(options.seconds * 1000));
  if (!options.once && !isatty(STDOUT_FILENO)) {
    throw std::runtime_error(
        "standard output is no terminal; 'korvel top --once' prints one picture");
  }
  options.once ? printOnce(client, period) : show(client, period);
}

}  // namespace

void addTopCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("top", "Watch rates, times, tables and forwarding agents; q ends it");
  const auto options = std::make_shared<TopOptions>();
  addStateDirectoryOption(*command, options->stateDirectory);
  command->add_option("--seconds", options->seconds, "The time between two pictures")
      ->type_name("S")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  command->add_flag("--once", options->once, "Print one picture, with the rates of that time");
  command->callback([options] { runTop(*options); });
}
