#include "cli/switch/Supervised.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

using std::chrono::milliseconds;

milliseconds RestartPace::rest(milliseconds upFor) {
  if (upFor >= whileUp) next_ = shortest;
  const milliseconds now = next_;
  next_ = std::min(2 * next_, longest);
  return now;
}

Supervised::Supervised(std::string name, std::vector<std::string> command, int inherited,
                       const SwitchLog& log)
    : name_(std::move(name)), command_(std::move(command)), inherited_(inherited), log_(log) {}

void Supervised::start() {
  child_ = std::make_unique<Child>(command_, inherited_);
  isUp_ = false;
}

void Supervised::readOutput() {
  const auto say = [this](const std::string& line) {
    lastLine_ = line;
    log_.say(name_, line);
  };
  char block[16384];
  for (;;) {
    const ssize_t got = read(child_->output(), block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) lines_.end(say);
    if (got <= 0) return;
    lines_.append({block, static_cast<size_t>(got)}, say);
  }
}

void Supervised::upIs() {
  if (isUp_) return;
  if (everUp_) log_.say("switch", fmt::format("the {} is back, pid {}", name_, pid()));
  isUp_ = everUp_ = true;
  upSince_ = Clock::now();
}

void Supervised::handleEnd() {
  const auto end = child_->end();
  if (!end) return;
  readOutput();
  if (!everUp_) {
    throw StartError(fmt::format("the {} {} when it was to start{}{}", name_, end->text(),
                                 lastLine_.empty() ? "" : ": ", lastLine_));
  }
  rest(fmt::format("the {}, pid {}, {}", name_, pid(), end->text()));
}

void Supervised::rest(const std::string& why) {
  const auto upFor =
      isUp_ ? std::chrono::duration_cast<milliseconds>(Clock::now() - upSince_) : milliseconds(0);
  const milliseconds rest = pace_.rest(upFor);
  log_.say("switch", fmt::format("{}; it is started again in {} ms", why, rest.count()));
  child_.reset();
  isUp_ = false;
  nextStart_ = Clock::now() + rest;
}

void Supervised::maybeStart(Clock::time_point now) {
  if (child_ || now < nextStart_) return;
  try {
    if (beforeRestart_) beforeRestart_();
    start();
  } catch (const std::system_error& e) {
    rest(e.what());
  }
}

std::optional<Supervised::Clock::time_point> Supervised::nextStart() const {
  return child_ ? std::nullopt : std::optional(nextStart_);
}

void Supervised::signal(int number) const {
  if (child_) child_->signal(number);
}

void Supervised::forget() {
  if (!child_ || !child_->end()) return;
  readOutput();
  child_.reset();
}
