#include "cli/switch/SwitchLog.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <system_error>
#include <utility>

namespace {

Vela::UniqueFd opened(const std::string& file) {
  const int descriptor =
      open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0644);
  if (descriptor >= 0) return Vela::UniqueFd(descriptor);
  throw std::system_error(errno, std::generic_category(), "cannot write the log file " + file);
}

// "12:00:00.123", local time
std::string timeOfDay() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto sinceEpoch =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch());
  std::tm local{};
  localtime_r(&seconds, &local);
  return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                     sinceEpoch.count() % 1000);
}

}  // namespace

SwitchLog::SwitchLog(const std::string& file) : file_(opened(file)), descriptor_(file_.get()) {}

void SwitchLog::say(std::string_view name, std::string_view line) const {
  const std::string text = fmt::format("[{}] [{}] {}\n", timeOfDay(), name, line);
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t now = write(descriptor_, text.data() + written, text.size() - written);
    if (now < 0 && errno == EINTR) continue;
    if (now <= 0) return;
    written += static_cast<size_t>(now);
  }
}

void LineCutter::append(std::string_view bytes, const Take& take) {
  for (const char byte : bytes) {
    if (byte != '\n') rest_ += byte;
    if (byte == '\n' || rest_.size() == longest) take(std::exchange(rest_, {}));
  }
}

void LineCutter::end(const Take& take) {
  if (!rest_.empty()) take(std::exchange(rest_, {}));
}
