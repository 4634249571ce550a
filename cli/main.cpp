// The `korvel` command: one subcommand a file. Exit status 0: done, 1: failed, 2: wrong usage.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "cli/LogCommand.h"
#include "cli/TraceCommand.h"
#include "cli/agent/AgentCommand.h"
#include "cli/agent/ConfigCommand.h"
#include "cli/client/ControlCommands.h"
#include "cli/client/OrreryCommands.h"
#include "cli/client/StatusCommand.h"
#include "cli/journal/ReplayCommand.h"
#include "cli/journal/WhyCommand.h"
#include "cli/pipeline/PipelineCommand.h"
#include "cli/policy/PolicyCommand.h"
#include "cli/switch/SwitchCommand.h"
#include "cli/switch/SwitchOptions.h"
#include "cli/table/TableCommand.h"
#include "cli/top/TopCommand.h"
#include "platform/vela/LargePages.h"

namespace {

constexpr int failed = 1;
constexpr int usage = 2;

void addCommands(CLI::App& app) {
  addAgentCommand(app);
  addConfigCommand(app);
  addSwitchCommand(app, KORVEL_VERSION);
  addPipelineCommand(app);
  addPolicyCommand(app);
  addStatusCommand(app);
  addControlCommands(app);
  addOrreryCommands(app);
  addTableCommand(app);
  addTopCommand(app);
  addTraceCommand(app);
  addLogCommand(app);
  addWhyCommand(app);
  addReplayCommand(app);
}

// The subcommand that was being parsed, for the hint.
std::string commandName(const CLI::App& app, const std::string& first) {
  if (app.get_subcommands().empty() && first == "switch") return "korvel switch";
  std::string name = "korvel";
  for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
    at = at->get_subcommands().front();
    name += " " + at->get_name();
  }
  return name;
}

CLI::App* subcommand(CLI::App& app, const std::string& name) {
  const auto found = app.get_subcommands([&](CLI::App* one) { return one->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

// Refuses a mistyped subcommand by name, since CLI11 would only ask for a subcommand. 0: no fault.
int refuseUnknownSubcommand(CLI::App& app, int argc, char** argv) {
  std::string command = app.get_name();
  CLI::App* at = &app;
  for (int i = 1; i < argc && argv[i][0] != '-' && at->get_require_subcommand_min() > 0; ++i) {
    CLI::App* const next = subcommand(*at, argv[i]);
    if (next == nullptr) {
      std::fprintf(stderr, "korvel: '%s' is no subcommand; see '%s --help'\n", argv[i],
                   command.c_str());
      return usage;
    }
    at = next;
    command += " " + at->get_name();
  }
  return 0;
}

// CLI11 says "--name: 1 required TEXT missing".
std::string wordsOf(const CLI::ParseError& error) {
  const std::string words = error.what();
  const auto at = words.find(": 1 required ");
  return at == std::string::npos ? words : words.substr(0, at) + " needs a value";
}

int usageStatus(const CLI::App& app, const CLI::ParseError& error, const std::string& first) {
  if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
  std::fprintf(stderr, "korvel: %s; see '%s --help'\n", wordsOf(error).c_str(),
               commandName(app, first).c_str());
  return usage;
}

// As the parser takes them: the last one first.
std::vector<std::string> wordsFor(CLI::App& app, int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  const CLI::App* const command = words.empty() ? nullptr : subcommand(app, words[0]);
  if (command && words[0] == "switch") words = plainSwitchWords(*command, std::move(words));
  std::reverse(words.begin(), words.end());
  return words;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "agent") Vela::startWithLargePages(argv);
  std::signal(SIGPIPE, SIG_DFL);  // `korvel trace | head` just ends
  CLI::App app("Runs, watches and asks the Korvel P4Runtime agent", "korvel");
  app.require_subcommand(1);
  app.set_version_flag("--version", KORVEL_VERSION);
  addCommands(app);
  if (const int status = refuseUnknownSubcommand(app, argc, argv); status != 0) return status;
  try {
    app.parse(wordsFor(app, argc, argv));
    return 0;
  } catch (const CLI::RuntimeError& e) {
    return e.get_exit_code();
  } catch (const CLI::ParseError& e) {
    return usageStatus(app, e, argc > 1 ? argv[1] : "");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "korvel: %s\n", e.what());
    return failed;
  }
}
