// The state directory of a switch: made, held by one switch at a time, and removed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "platform/vela/Descriptors.h"

// The directory cannot be had; the message names it and says what to do.
class SwitchDirectoryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where a switch of that device keeps its state when no option says so: in /run if that is in
// memory and may be written to, else in /dev/shm. The port is part of the name unless it is
// `usualPort`: switches of a machine have ports of their own, and often all the same device id.
std::string defaultSwitchDirectory(uint32_t deviceId, uint16_t serverPort);

class SwitchDirectory {
 public:
  static constexpr uint16_t usualPort = 9559;
  // Makes the directory when it is absent, with mode 0700, and holds it. The children of a switch
  // that was killed a moment ago are waited for, for `patience`. `fresh`: removes all
  // that is in it. Throws SwitchDirectoryError; also when `fresh` is given for a directory with
  // files that no switch has made.
  SwitchDirectory(std::string path, bool fresh,
                  std::chrono::milliseconds patience = std::chrono::seconds(3));

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // State of a former switch was there.
  bool isTakenUp() const { return takenUp_; }
  // A child that inherits it holds the directory, too, as long as it lives.
  int lock() const { return lock_.get(); }
  // With all that is in it. Call it when the children have ended.
  void remove() const;

 private:
  bool tryHold();
  [[noreturn]] void failBeside(pid_t holder) const;
  void requireSwitchs() const;
  void removeContents() const;

  const std::string path_;
  Vela::UniqueFd lock_;
  bool takenUp_ = false;
};
