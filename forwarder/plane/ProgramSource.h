// The program to execute: that of the last push, in the agent's state directory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "forwarder/plane/ProgramNames.h"

namespace Forwarder {

// A plain value.
struct PushedProgram {
  uint64_t push = 0;          // its number
  bool keepsEntries = false;  // those of an earlier push
  std::string json;           // empty: the push has none
  ProgramNames names;
};

// Threads: one at a time.
class ProgramSource {
 public:
  explicit ProgramSource(const std::string& stateDirectory) : folder_(stateDirectory + "/pushed") {}

  // Whether the push in force is another one than that last taken; costs a system call.
  bool isNew() const;
  // The push in force; nothing: there is none. Throws std::runtime_error with a message for people;
  // isNew() is then false until there is another push.
  std::optional<PushedProgram> take();

 private:
  // Of the file that names the push: it is replaced, never written again.
  struct Stamp {
    uint64_t inode = 0;
    int64_t seconds = 0;
    int64_t nanoseconds = 0;
    bool operator==(const Stamp&) const = default;
  };
  Stamp stamp() const;  // zeros when there is no push

  const std::string folder_;
  Stamp taken_;
};

}  // namespace Forwarder
