// One of the switch's programs: started, and started again when it ends.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/switch/Child.h"
#include "cli/switch/SwitchLog.h"

// A program ended before it ever did its work; another start would end the same way.
class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How long a program rests before its next start: not at all after a run that did its work for a
// while, else longer each time.
class RestartPace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds shortest{100};
  static constexpr std::chrono::milliseconds longest{5000};
  static constexpr std::chrono::milliseconds whileUp{1000};  // then the next rest is the shortest

  // `upFor`: how long the run that has ended did its work; 0: it did not.
  std::chrono::milliseconds rest(std::chrono::milliseconds upFor);

 private:
  std::chrono::milliseconds next_ = shortest;
};

// Threads: one, which lives as long as the program is to run (see Child).
class Supervised {
 public:
  using Clock = std::chrono::steady_clock;
  // `name` is for the log and for people. `log` outlives it; `inherited` stays open in the process.
  Supervised(std::string name, std::vector<std::string> command, int inherited,
             const SwitchLog& log);

  void start();  // throws std::system_error
  // Runs before each start but the first.
  void beforeRestartIs(std::function<void()> work) { beforeRestart_ = std::move(work); }
  // 0 while it rests.
  pid_t pid() const { return child_ ? child_->pid() : 0; }
  // -1 while it rests.
  int ending() const { return child_ ? child_->ending() : -1; }
  int output() const { return child_ ? child_->output() : -1; }
  void readOutput();
  // It does its work now.
  void upIs();
  bool isUp() const { return isUp_; }
  // Takes note of an end, and rests. Throws StartError when no run has ever come up.
  void handleEnd();
  // Starts it when it has rested enough. Throws nothing: trouble is said, and tried again.
  void maybeStart(Clock::time_point now);
  // Empty unless it rests.
  std::optional<Clock::time_point> nextStart() const;

  void signal(int number) const;
  bool isRunning() const { return child_ != nullptr; }
  // For the end of the switch: takes note, and starts nothing.
  void forget();

 private:
  void rest(const std::string& why);

  const std::string name_;
  const std::vector<std::string> command_;
  const int inherited_;
  const SwitchLog& log_;
  std::unique_ptr<Child> child_;
  LineCutter lines_;
  std::string lastLine_;
  std::function<void()> beforeRestart_;
  RestartPace pace_;
  bool isUp_ = false;
  bool everUp_ = false;
  Clock::time_point upSince_;
  Clock::time_point nextStart_;
};
