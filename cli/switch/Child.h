// A process of the switch: started, watched, and never left behind.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/vela/Descriptors.h"

// How a process ended.
struct ChildEnd {
  int status = 0;            // of exit()
  int signal = 0;            // that ended it; 0 when it exited
  std::string text() const;  // "ended with status 1", "was ended by signal 9 (Killed)"
};

// It gets SIGKILL when the thread that made it ends, so make it on the main thread. It has a
// process group of its own: signals from the terminal go to the switch alone. Not thread-safe.
class Child {
 public:
  // Standard input is empty; both outputs come out of output(). `inherited` stays open in it.
  // Throws std::system_error when the system has no process to give. A program that cannot be
  // executed ends with status 127, and says why.
  Child(const std::vector<std::string>& command, int inherited);
  ~Child();  // kills it if it still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  int ending() const { return ending_.get(); }  // readable once it has ended
  int output() const { return output_.get(); }  // non-blocking
  std::optional<ChildEnd> end();                // empty while it runs
  void signal(int number) const;

 private:
  pid_t pid_ = -1;
  Vela::UniqueFd ending_;
  Vela::UniqueFd output_;
  std::optional<ChildEnd> end_;
};
