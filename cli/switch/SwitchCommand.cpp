#include "cli/switch/SwitchCommand.h"

#include <fmt/format.h>
#include <net/if.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "cli/switch/StartChecks.h"
#include "cli/switch/Supervisor.h"
#include "cli/switch/SwitchDirectory.h"
#include "cli/switch/SwitchLog.h"
#include "cli/switch/SwitchOptions.h"

namespace {

constexpr int failed = 1;

std::string ownProgram() { return std::filesystem::read_symlink("/proc/self/exe"); }

SwitchLog logOf(const SwitchOptions& options) {
  if (!options.logFile.empty()) return SwitchLog(options.logFile);
  return SwitchLog(options.logsToConsole ? STDOUT_FILENO : STDERR_FILENO);
}

void sayInterfaces(const SwitchOptions& options, const SwitchLog& log) {
  for (const auto& [port, interface] : options.interfaces) {
    fmt::print("Adding interface {} as port {}\n", interface, port);
    if (if_nametoindex(interface.c_str()) != 0) continue;
    log.say("switch", fmt::format("there is no interface {} yet; port {} works once it is there",
                                  interface, port));
  }
  std::fflush(stdout);
}

void warnOfStrangers(const ServerAddress& server, const SwitchLog& log) {
  if (server.host == "::1" || server.host.starts_with("127.")) return;
  log.say("switch",
          fmt::format("everybody who reaches {} may program the switch: calls are neither "
                      "encrypted nor authenticated",
                      server.text));
}

void sayDirectory(const SwitchDirectory& directory, const SwitchLog& log) {
  fmt::print("State directory {}\n", directory.path());
  if (!directory.isTakenUp()) return;
  log.say("switch", fmt::format("goes on with the tables of the former switch in {}; --fresh "
                                "begins empty",
                                directory.path()));
}

// A directory that the switch has chosen itself goes with a clean end, or when nothing has run.
void runIn(const SwitchDirectory& directory, const SwitchOptions& options, const SwitchLog& log) {
  requireListening(options.server);
  sayDirectory(directory, log);
  sayInterfaces(options, log);
  Supervisor(options, directory, log, ownProgram()).run();
}

int switchMain(const SwitchOptions& options) {
  std::signal(SIGPIPE, SIG_IGN);  // the switch outlives the reader of its log
  try {
    const SwitchLog log = logOf(options);
    for (const std::string& warning : options.warnings) log.say("switch", warning);
    warnOfStrangers(options.server, log);
    requireStartable(options);
    const bool isOwn = options.stateDirectory.empty();
    const SwitchDirectory directory(
        isOwn ? defaultSwitchDirectory(options.deviceId, options.server.port)
              : options.stateDirectory,
        options.fresh);
    try {
      runIn(directory, options, log);
    } catch (...) {
      if (isOwn && !directory.isTakenUp()) directory.remove();
      throw;
    }
    if (isOwn) directory.remove();
    return 0;
  } catch (const UsageError& e) {
    fmt::print(stderr, "korvel: {}; see 'korvel switch --help'\n", e.what());
    return UsageError::status;
  } catch (const std::exception& e) {
    fmt::print(stderr, "korvel: {}\n", e.what());
    return failed;
  }
}

}  // namespace

void addSwitchCommand(CLI::App& app, const std::string& version) {
  const auto options = std::make_shared<SwitchOptions>();
  CLI::App* command =
      app.add_subcommand("switch", "Run a whole P4 switch: the agent and its forwarding agent");
  command->set_version_flag("-v,--version", version);
  command->add_flag_callback(
      "--json-version", [] { throw CLI::CallForVersion("2.24", 0); },
      "The newest format of compiled programs that it reads");
  addSwitchOptions(*command, *options);
  command->callback([options] {
    checkSwitchOptions(*options);
    const int status = switchMain(*options);
    std::fflush(nullptr);
    if (status != 0) throw CLI::RuntimeError(status);
  });
}
