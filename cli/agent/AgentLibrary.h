// The agent's library, libP4Runtime.so, as the launcher loads it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "P4Runtime/agent/AgentRuntime.h"

// One line for people.
class LibraryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct AgentLibrary {
  void (*registerTypes)() = nullptr;
  void (*start)(const char* name, const P4Runtime::AgentRuntime* runtime) = nullptr;
  // Null where the library has none: see P4Runtime/agent/Contradictions.h.
  void (*contradictions)(const Orrery::Database& database,
                         std::vector<std::string>& lines) = nullptr;
};

// `path` is empty for the library that was built or installed with the command. Throws
// LibraryError.
AgentLibrary loadAgentLibrary(const std::string& path);
