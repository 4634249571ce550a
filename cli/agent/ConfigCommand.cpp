#include "cli/agent/ConfigCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

#include "cli/agent/AgentLibrary.h"
#include "cli/agent/NetworkPlatform.h"
#include "cli/agent/ProvidedEntities.h"
#include "platform/orrery/ConfigFile.h"
#include "platform/orrery/Database.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"

namespace {

constexpr int faulty = 1;

struct Options {
  std::string file;
  std::string library;
};

// Against the entities of an agent that does not run.
void check(const Options& options) {
  Vela::ReactorLoop loop;
  const auto database = Orrery::embeddedDatabase(loop);
  const Vela::ActivityLock lock;
  loadAgentLibrary(options.library).registerTypes();
  const NetworkPlatform network(loop, *database);
  provideEntities(*database, "");
  Orrery::LayeredConfig layers(*database);
  const auto faults = Orrery::ConfigFile(layers, options.file).faults();
  for (const std::string& fault : faults) fmt::print(stderr, "korvel: {}\n", fault);
  if (!faults.empty()) throw CLI::RuntimeError(faulty);
  fmt::print("{}: all settings are known, and their values are of the right kind\n", options.file);
}

}  // namespace

void addConfigCommand(CLI::App& app) {
  CLI::App* config = app.add_subcommand("config", "Check configuration files of the agent");
  config->require_subcommand(1);
  const auto options = std::make_shared<Options>();
  CLI::App* command = config->add_subcommand("check", "Name all faults of a configuration file");
  command->add_option("file", options->file, "The file")->type_name("FILE")->required();
  command->add_option("--library", options->library, "The agent's library, libP4Runtime.so");
  command->callback([options] { check(*options); });
}
