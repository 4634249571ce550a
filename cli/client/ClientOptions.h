// The options of every subcommand that talks to the agent.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <string>

// Where the agent's state lives when no option says so: $KORVEL_STATE_DIR, else /run/korvel.
inline std::string defaultStateDirectory() {
  const char* set = std::getenv("KORVEL_STATE_DIR");
  return set && *set ? set : "/run/korvel";
}

struct ClientOptions {
  std::string stateDirectory = defaultStateDirectory();
  bool json = false;
};

inline void addStateDirectoryOption(CLI::App& command, std::string& directory) {
  command.add_option("--state-dir", directory, "The agent's state directory")
      ->type_name("DIR")
      ->capture_default_str();
}

inline void addClientOptions(CLI::App& command, ClientOptions& options) {
  addStateDirectoryOption(command, options.stateDirectory);
  command.add_flag("--json", options.json, "Print JSON");
}
