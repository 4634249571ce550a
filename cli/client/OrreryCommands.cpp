#include "cli/client/OrreryCommands.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/client/AgentRequest.h"
#include "cli/client/AttributeText.h"
#include "cli/client/ClientOptions.h"
#include "platform/orrery/Client.h"

namespace {

struct Options : ClientOptions {
  std::string path;
  std::string attribute;
  std::string value;
  std::string operation;
  std::vector<std::string> arguments;
};
using SharedOptions = std::shared_ptr<Options>;

void printJson(const cJSON& answer) { fmt::print("{}\n", Vela::jsonText(answer)); }

void printPaths(const cJSON& answer) {
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, cJSON_GetObjectItemCaseSensitive(&answer, "paths")) {
    const char* path = Vela::stringMember(*one, "path");
    const char* type = Vela::stringMember(*one, "type");
    if (path && type) fmt::print("{:<40} {}\n", path, type);
  }
}

void printNames(const char* what, const cJSON* names) {
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, names) {
    if (name->valuestring) fmt::print("{} {}\n", what, name->valuestring);
  }
}

void printOperations(const cJSON* operations) {
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, operations) {
    const char* name = Vela::stringMember(*one, "name");
    std::string line = fmt::format("operation {}", name ? name : "?");
    const cJSON* argument = nullptr;
    cJSON_ArrayForEach(argument, cJSON_GetObjectItemCaseSensitive(one, "arguments")) {
      if (argument->valuestring) line += fmt::format(" {}", argument->valuestring);
    }
    fmt::print("{}\n", line);
  }
}

void printEntity(const cJSON& answer) {
  const cJSON* attribute = nullptr;
  cJSON_ArrayForEach(attribute, cJSON_GetObjectItemCaseSensitive(&answer, "attributes")) {
    printAttribute(attribute->string, *attribute);
  }
  printNames("child", cJSON_GetObjectItemCaseSensitive(&answer, "children"));
  printOperations(cJSON_GetObjectItemCaseSensitive(&answer, "operations"));
}

void runGet(const Options& options) {
  Orrery::Client client(options.stateDirectory);
  const bool list = options.path.empty();
  const Vela::Json answer = list ? client.list("") : client.get(options.path, options.attribute);
  if (options.json) return printJson(*answer);
  if (list) return printPaths(*answer);
  if (options.attribute.empty()) return printEntity(*answer);
  if (const cJSON* value = cJSON_GetObjectItemCaseSensitive(answer.get(), "value")) {
    fmt::print("{}\n", valueText(*value));
  }
}

void runSet(const Options& options) {
  execute(options.stateDirectory, "set", {options.path, options.attribute, options.value});
  if (!options.json) return;
  printJson(*Orrery::Client(options.stateDirectory).get(options.path, options.attribute));
}

void runCreate(const Options& options) {
  std::vector<std::string> arguments{options.path};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  execute(options.stateDirectory, "create", arguments);
  if (options.json) printJson(*Orrery::Client(options.stateDirectory).get(options.path));
}

void runDelete(const Options& options) {
  execute(options.stateDirectory, "delete", {options.path});
  const Vela::Json done(cJSON_CreateObject());
  cJSON_AddTrueToObject(done.get(), "ok");
  if (options.json) printJson(*done);
}

void runCall(const Options& options) {
  std::vector<std::string> arguments{options.path, options.operation};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  const std::string text = execute(options.stateDirectory, "call", arguments);
  if (options.json) {
    const Vela::Json answer(cJSON_CreateObject());
    cJSON_AddTrueToObject(answer.get(), "ok");
    cJSON_AddStringToObject(answer.get(), "answer", text.c_str());
    return printJson(*answer);
  }
  if (!text.empty()) fmt::print("{}\n", text);
}

void printChange(const cJSON& change) {
  const char* path = Vela::stringMember(change, "path");
  if (const char* child = Vela::stringMember(change, "child")) {
    const bool present = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(&change, "present"));
    fmt::print("{} {} {}\n", path ? path : "", child, present ? "came" : "went");
  } else if (const char* name = Vela::stringMember(change, "attribute")) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(&change, "value");
    fmt::print("{} {} {}\n", path ? path : "", name, value ? valueText(*value) : "");
  }
}

void runWatch(const Options& options) {
  Orrery::Client client(options.stateDirectory);
  Vela::Json answer = client.watch(options.path);
  options.json ? fmt::print("{}\n", Vela::jsonLine(*answer)) : printEntity(*answer);
  std::fflush(stdout);
  while (Vela::Json change = client.next()) {
    options.json ? fmt::print("{}\n", Vela::jsonLine(*change)) : printChange(*change);
    std::fflush(stdout);
  }
  throw std::runtime_error("the agent closed the connection; see 'korvel status'");
}

CLI::App& addCommand(CLI::App& app, const char* name, const char* description,
                     const SharedOptions& options, void (*run)(const Options&)) {
  CLI::App* command = app.add_subcommand(name, description);
  addClientOptions(*command, *options);
  command->callback([options, run] { run(*options); });
  return *command;
}

}  // namespace

void addOrreryCommands(CLI::App& app) {
  const auto options = std::make_shared<Options>();  // one command runs
  const char* path = "Path in the state database, such as p4runtime/status/agent";
  const char* attribute = "Attribute, by name or number";

  CLI::App& get = addCommand(app, "get", "Show an entity or an attribute of the state database",
                             options, runGet);
  get.add_option("PATH", options->path, std::string(path) + "; all paths without it");
  get.add_option("ATTRIBUTE", options->attribute, attribute);

  CLI::App& set = addCommand(app, "set", "Set an attribute of the state database", options, runSet);
  set.add_option("PATH", options->path, path)->required();
  set.add_option("ATTRIBUTE", options->attribute, attribute)->required();
  set.add_option("VALUE", options->value, "What it shall be")->required();

  CLI::App& create = addCommand(
      app, "create", "Make an entity of the state database, where its directory makes some",
      options, runCreate);
  create.add_option("PATH", options->path, path)->required();
  create.add_option("ATTRIBUTE=VALUE", options->arguments, "What it shall have from the start");

  CLI::App& del =
      addCommand(app, "delete", "Remove an entity that could be made", options, runDelete);
  del.add_option("PATH", options->path, path)->required();

  CLI::App& watch =
      addCommand(app, "watch", "Show an entity, and then every change of it", options, runWatch);
  watch.add_option("PATH", options->path, path)->required();

  CLI::App& call = addCommand(app, "call", "Call an operation of an entity", options, runCall);
  call.add_option("PATH", options->path, path)->required();
  call.add_option("OPERATION", options->operation, "Operation; 'korvel get PATH' lists them")
      ->required();
  call.add_option("ARGUMENTS", options->arguments, "What the operation takes");
}
