// See AgentProcess.h.
#include "tests/support/AgentProcess.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TestController.h"

namespace TestSupport {
namespace {

std::string portsOf(const AgentOptions& options) {
  std::string members;
  for (const auto& [port, intf] : options.ports) {
    members += fmt::format(R"("p4runtime/config/port-mapping/{}": {{"intf": "{}"}},)", port, intf);
  }
  return members;
}

std::string madeConfiguration(const AgentOptions& options) {
  return fmt::format(
      R"({{{} "p4runtime/config/system": {{"enabled": {}, "deviceId": {},
 "forwardingPipelineConfigFilePath": "{}", "grpcServerAddress": "127.0.0.1",
 "grpcServerPort": {}}},
"p4runtime/config/agent": {{"pluginDirectory": "{}", "batchTimeout": {}, "p4InfoJsonPath": "{}.p4info.json",
 "deviceJsonPath": "{}.device.json"}},
"p4runtime/config/journal": {{"sizeMib": {}}}}}
)",
      portsOf(options), options.enabled, options.deviceId, options.pipelineFile, options.port,
      options.pluginDirectory, options.batchTimeout, options.stateDirectory, options.stateDirectory,
      options.journalMib);
}

}  // namespace

// Beside the state directory, not in it: a test may fill or forbid that one.
AgentProcess::AgentProcess(AgentOptions options) : options_(std::move(options)) {
  if (options_.port == 0) options_.port = freePort();
}

AgentProcess::~AgentProcess() = default;

std::string AgentProcess::configPath() const { return options_.stateDirectory + ".config.json"; }
std::string AgentProcess::outputPath() const { return options_.stateDirectory + ".output"; }
std::string AgentProcess::output() const { return fileText(outputPath()); }
std::string AgentProcess::address() const { return fmt::format("127.0.0.1:{}", options_.port); }

std::string AgentProcess::configuration() const {
  return options_.configuration.empty() ? madeConfiguration(options_) : options_.configuration;
}

void AgentProcess::start() {
  std::filesystem::create_directories(options_.stateDirectory);
  std::ofstream(configPath()) << configuration();
  const bool isOutside = !options_.orrery.empty();
  std::vector<std::string> command{binaryPath("korvel"),
                                   "agent",
                                   isOutside ? "--orrery" : "--config",
                                   isOutside ? options_.orrery : configPath(),
                                   "--state-dir",
                                   options_.stateDirectory};
  command.insert(command.end(), options_.arguments.begin(), options_.arguments.end());
  if (options_.descriptorLimit > 0) {
    const std::string script = fmt::format("ulimit -n {}; exec \"$@\"", options_.descriptorLimit);
    command.insert(command.begin(), {"/bin/sh", "-c", script, "sh"});
  }
  process_ = std::make_unique<Process>(command, outputPath(), outputPath(), options_.environment);
}

void AgentProcess::kill() { process_->kill(); }

bool AgentProcess::waitServing(const p4::v1::TableEntry& query) {
  TestController controller(address(), 0, options_.deviceId);
  const auto serving = [&] {
    return controller.waitConnected(std::chrono::milliseconds(100)) &&
           controller.read(query).status.ok();
  };
  return waitUntil(serving, process_->descriptor());
}

bool AgentProcess::startServing() {
  start();
  return waitServing();
}

CommandResult AgentProcess::korvel(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), binaryPath("korvel"));
  arguments.insert(arguments.end(), {"--state-dir", options_.stateDirectory});
  return run(arguments);
}

}  // namespace TestSupport
