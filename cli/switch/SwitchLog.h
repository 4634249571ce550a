// The one log of a switch: its own lines and those of its processes, each with time and name.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/vela/Descriptors.h"

// Lines such as "[12:00:00.123] [agent] TEXT". One thread at a time. A line that cannot be written
// is lost.
class SwitchLog {
 public:
  // Writes to `descriptor`, which outlives it.
  explicit SwitchLog(int descriptor) : descriptor_(descriptor) {}
  // Appends to the file. Throws std::system_error, naming it.
  explicit SwitchLog(const std::string& file);

  void say(std::string_view name, std::string_view line) const;

 private:
  Vela::UniqueFd file_;
  const int descriptor_;
};

// Cuts what a process writes into lines.
class LineCutter {
 public:
  using Take = std::function<void(const std::string& line)>;
  // Takes the lines that are whole now. A line of more than `longest` bytes is cut into several.
  void append(std::string_view bytes, const Take& take);
  // Takes the rest as a line, if there is any.
  void end(const Take& take);

 private:
  static constexpr size_t longest = 16384;
  std::string rest_;
};
