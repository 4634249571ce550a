#include "cli/agent/ConfigCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli/agent/AgentLibrary.h"
#include "cli/agent/NetworkPlatform.h"
#include "cli/agent/ProvidedEntities.h"
#include "cli/agent/SettingKeys.h"
#include "platform/orrery/ConfigFile.h"
#include "platform/orrery/Database.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"

namespace {

constexpr int failed = 1;

struct Options {
  std::string file;
  std::string library;
  std::string word;
  bool json = false;
};

// Calls `work` with the entities of an agent that does not run.
template <typename Work>
void withEntities(const Options& options, Work work) {
  Vela::ReactorLoop loop;
  const auto database = Orrery::embeddedDatabase(loop);
  const Vela::ActivityLock lock;
  const AgentLibrary library = loadAgentLibrary(options.library);
  library.registerTypes();
  const NetworkPlatform network(loop, *database);
  provideEntities(*database, "");
  work(*database, library);
}

// Settings are compared with each other once each is good by itself.
std::vector<std::string> faultsOf(const std::string& name, Orrery::Database& database,
                                  const AgentLibrary& library) {
  Orrery::LayeredConfig layers(database);
  Orrery::ConfigFile file(layers, name);
  std::vector<std::string> faults = file.faults();
  if (!faults.empty() || !library.contradictions) return faults;
  file.load();
  library.contradictions(database, faults);
  for (std::string& fault : faults) fault = name + ": " + fault;
  return faults;
}

void check(const Options& options) {
  withEntities(options, [&](Orrery::Database& database, const AgentLibrary& library) {
    const auto faults = faultsOf(options.file, database, library);
    for (const std::string& fault : faults) fmt::print(stderr, "korvel: {}\n", fault);
    if (!faults.empty()) throw CLI::RuntimeError(failed);
    fmt::print("{}: all settings are known, and their values are of the right kind\n",
               options.file);
  });
}

void printKeys(const Options& options) {
  withEntities(options, [&](const Orrery::Database& database, const AgentLibrary&) {
    const auto keys = settingKeys(database);
    const std::string text =
        options.json ? Vela::jsonText(*keysJson(keys)) + "\n" : keysText(keys, options.word);
    fmt::print("{}", text);
    if (!text.empty()) return;
    fmt::print(stderr,
               "korvel: no key has to do with '{}'; 'korvel config keys' lists all of them\n",
               options.word);
    throw CLI::RuntimeError(failed);
  });
}

template <typename Text>
void print(const Options& options, Text text) {
  withEntities(options, [&](const Orrery::Database& database, const AgentLibrary&) {
    fmt::print("{}", text(settingKeys(database)));
  });
}

}  // namespace

void addConfigCommand(CLI::App& app) {
  CLI::App* config =
      app.add_subcommand("config", "Check configuration files of the agent, and list their keys");
  config->require_subcommand(1);
  const auto options = std::make_shared<Options>();
  const auto add = [&](const char* name, const char* text, void (*run)(const Options&)) {
    CLI::App* command = config->add_subcommand(name, text);
    command->add_option("--library", options->library, "The agent's library, libP4Runtime.so");
    command->callback([options, run] { run(*options); });
    return command;
  };
  CLI::App* checks = add("check", "Name all faults of a configuration file", check);
  checks->add_option("file", options->file, "The file")->type_name("FILE")->required();
  CLI::App* keys = add("keys", "List keys with kind, unit, default and meaning", printKeys);
  keys->add_option("word", options->word, "Only keys that have to do with this word");
  keys->add_flag("--json", options->json, "All keys, in JSON");
  add("example", "Print a file that has all keys as comments, to begin with",
      [](const Options& given) { print(given, exampleFile); });
  add("doc", "Print the page of the documentation about all keys",
      [](const Options& given) { print(given, configurationPage); });
}
