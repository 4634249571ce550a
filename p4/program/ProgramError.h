// The refusal of a compiled program.
#pragma once

#include <stdexcept>
#include <string>

namespace P4 {

// Its message begins with the place in the JSON: `actions[3].primitives[0].op: ...`.
class ProgramError : public std::runtime_error {
 public:
  ProgramError(const std::string& place, const std::string& message)
      : std::runtime_error(place.empty() ? message : place + ": " + message) {}
};

}  // namespace P4
