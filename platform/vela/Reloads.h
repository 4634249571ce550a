// What a process does when its operator has it read its files again (SIGHUP).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Vela {

// Call with the activity lock held.
class Reloads {
 public:
  // Reads a file again. Returns a line for the operator, or an empty text when nothing has changed.
  // An exception is a line too; what was read before should then still be in force.
  using Work = std::function<std::string()>;

  // Kept as long as the process runs.
  void workIs(Work work);
  // Runs all work, in the order of registration, and returns its lines.
  std::vector<std::string> run() const;

 private:
  std::vector<Work> works_;
};

// The process's own; run() is called on the reactor.
Reloads& TheReloads();

}  // namespace Vela
