// The options of every subcommand that talks to the agent.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "cli/StateDirectory.h"

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
