// korvel-forwarder: the software forwarding agent, and `ctl`, which talks to a running one.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/CommandLine.h"
#include "forwarder/Runner.h"
#include "forwarder/control/ControlSocket.h"
#include "platform/vela/LargePages.h"

namespace {

using namespace Forwarder;

constexpr int failed = 1;
constexpr int usageError = 2;

std::string defaultStateDirectory() {
  const char* directory = std::getenv("KORVEL_STATE_DIR");
  return directory && *directory ? directory : "/run/korvel";
}

// The name becomes part of a file name.
void checkName(const std::string& name) {
  if (!name.empty() && name.size() <= 64 && name.find('/') == name.npos) return;
  throw CLI::ValidationError("--name", "a forwarder's name has 1 to 64 characters and no '/'");
}

int runCtl(const std::string& stateDirectory, const std::string& name,
           const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  try {
    const Answer answer = sendCommand(controlPath(stateDirectory, name), line);
    if (answer.ok) {
      std::cout << answer.text << std::flush;
      return std::cout ? EXIT_SUCCESS : failed;
    }
    std::cerr << "korvel-forwarder ctl: " << answer.text << '\n';
  } catch (const std::system_error& e) {
    std::cerr << "korvel-forwarder ctl: no forwarder named " << name << " answers: " << e.what()
              << "; start korvel-forwarder, or give its --state-dir and --name\n";
  } catch (const ControlError& e) {
    std::cerr << "korvel-forwarder ctl: " << e.what() << '\n';
  }
  return failed;
}

int runForwarder(RunnerOptions options) {
  try {
    Runner(std::move(options)).run();
    return EXIT_SUCCESS;
  } catch (const std::exception& e) {
    std::cerr << "korvel-forwarder: " << e.what() << '\n';
    return failed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 1 || std::string_view(argv[1]) != "ctl") Vela::startWithLargePages(argv);
  CLI::App app{
      "Follows the tables of a Korvel agent, programs them in memory, and reports on each "
      "change; fails on request, for tests of controllers.",
      "korvel-forwarder"};
  RunnerOptions options{.stateDirectory = defaultStateDirectory(), .name = "main"};
  app.add_option("--state-dir", options.stateDirectory, "the agent's state directory")
      ->capture_default_str();
  app.add_option("--name", options.name, "of this forwarder; each of an agent's has its own")
      ->capture_default_str();
  CommandLine commandLine(app);
  app.add_flag("--dump", options.dumpOnSignal, "print the tables on SIGUSR1");
  app.add_flag("--verbose", options.verbose, "print each change");

  CLI::App* ctl = app.add_subcommand("ctl", "Give a running forwarder a command; try: ctl help");
  std::vector<std::string> command;
  ctl->add_option("--state-dir", options.stateDirectory, "the agent's state directory");
  ctl->add_option("--name", options.name, "of the forwarder");
  ctl->add_option("command", command, "the command and its arguments")->required();

  try {
    app.parse(argc, argv);
    checkName(options.name);
    options.rules = commandLine.rules();
    options.traffic = commandLine.traffic();
    options.punt = commandLine.punt();
    options.forwarding = commandLine.forwarding();
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const std::exception& e) {  // CLI::ParseError, CommandError
    std::cerr << "korvel-forwarder: " << e.what() << "; see --help\n";
    return usageError;
  }
  if (*ctl) return runCtl(options.stateDirectory, options.name, command);
  return runForwarder(std::move(options));
}
