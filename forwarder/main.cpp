// korvel-forwarder: the software forwarding agent, and `ctl`, which talks to a running one.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "forwarder/ControlSocket.h"
#include "forwarder/PuntCommand.h"
#include "forwarder/Runner.h"
#include "forwarder/TrafficCommand.h"

namespace {

using namespace Forwarder;

constexpr int failed = 1;
constexpr int usageError = 2;

std::string defaultStateDirectory() {
  const char* directory = std::getenv("KORVEL_STATE_DIR");
  return directory && *directory ? directory : "/run/korvel";
}

// A name becomes part of a file name.
std::string nameFault(const std::string& name) {
  if (!name.empty() && name.size() <= 64 && name.find('/') == name.npos) return {};
  return "a forwarder's name has 1 to 64 characters and no '/'";
}

// Options that have a control command of the same name; they are applied by that name.
struct RuleOptions {
  std::map<std::string, std::vector<std::string>> given;
  bool silent = false;

  void add(CLI::App& app, const std::string& name, const std::string& what,
           const std::string& help) {
    app.add_option("--" + name, given[name], help)
        ->type_name(what)
        ->allow_extra_args(false)
        ->take_all();
  }
  Rules rules() const {
    Rules rules;
    for (const auto& [name, arguments] : given) {
      for (const std::string& argument : arguments) applyRule(rules, name, argument);
    }
    rules.silent = silent;
    return rules;
  }
};

// So are these, as words of the command `traffic`.
struct TrafficWords {
  std::vector<std::string> rate, headers, bytes, seed;

  void add(CLI::App& app) {
    const auto option = [&](const char* name, std::vector<std::string>& words, const char* what,
                            const char* help) {
      app.add_option(name, words, help)->type_name(what)->allow_extra_args(false)->take_all();
    };
    option("--traffic", rate, "RATE", "look up so many synthetic packets a second, and count hits");
    option("--traffic-header", headers, "FIELD=VALUE,...",
           "a packet to take in turn; fields not given are drawn");
    option("--traffic-bytes", bytes, "N", "a packet's size (default 64)");
    option("--traffic-seed", seed, "N", "the same seed draws the same packets (default 1)");
  }
  TrafficOptions options() const {
    TrafficOptions options;
    for (const std::string& word : rate) applyTraffic(options, word);
    for (const std::string& word : headers) applyTraffic(options, "header " + word);
    for (const std::string& word : bytes) applyTraffic(options, "bytes " + word);
    for (const std::string& word : seed) applyTraffic(options, "seed " + word);
    return options;
  }
};

// And these, of the command `punt`.
struct PuntWords {
  std::vector<std::string> ports, etherTypes, fields;
  std::string device;
  CLI::Option* punt = nullptr;

  void add(CLI::App& app) {
    const auto option = [&](const char* name, auto& words, const char* what, const char* help) {
      return app.add_option(name, words, help)->type_name(what)->allow_extra_args(false);
    };
    punt = option("--punt", ports, "[PORT=DEVICE]",
                  "punt what arrives on the ports that the agent maps, or on this one")
               ->expected(0, 1)
               ->take_all();
    option("--punt-ethertype", etherTypes, "TYPE", "only packets of this EtherType")->take_all();
    option("--punt-field", fields, "NAME=VALUE", "a value for a field of packet_in")->take_all();
    option("--punt-device", device, "DEVICE",
           "send to the controller on this device, not into the TAP p4controller");
  }
  PuntOptions options() const {
    PuntOptions options;
    // `--punt` by itself stands as an empty word, or as none.
    if (punt->count() > ports.size()) applyPunt(options, "");
    for (const std::string& word : ports) applyPunt(options, word);
    for (const std::string& word : etherTypes) applyPuntEtherType(options, word);
    for (const std::string& word : fields) applyPuntField(options, word);
    options.device = device;
    return options;
  }
};

int runCtl(const std::string& stateDirectory, const std::string& name,
           const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
  try {
    const Answer answer = asked(controlPath(stateDirectory, name), line);
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
  CLI::App app{
      "Follows the tables of a Korvel agent, programs them in memory, and reports on each "
      "change; fails on request, for tests of controllers.",
      "korvel-forwarder"};
  RunnerOptions options{.stateDirectory = defaultStateDirectory(), .name = "main"};
  RuleOptions ruleOptions;
  TrafficWords traffic;
  PuntWords punt;
  app.add_option("--state-dir", options.stateDirectory, "the agent's state directory")
      ->capture_default_str();
  app.add_option("--name", options.name, "of this forwarder; each of an agent's has its own")
      ->capture_default_str();
  ruleOptions.add(app, "capacity", "TABLE=N", "the table holds N rows; TABLE may be *");
  ruleOptions.add(app, "latency", "MS", "reports come so many milliseconds later");
  ruleOptions.add(app, "fail-table", "TABLE", "every write of the table fails");
  ruleOptions.add(app, "fail-key", "TABLE:COLUMN=TEXT", "writes of rows with this key fail");
  ruleOptions.add(app, "fail-every", "N", "one write in N fails");
  ruleOptions.add(app, "fail-code", "CODE", "the error code of such failures (default 2)");
  traffic.add(app);
  punt.add(app);
  app.add_flag("--silent", ruleOptions.silent, "never report");
  app.add_flag("--dump", options.dumpOnSignal, "print the tables on SIGUSR1");
  app.add_flag("--verbose", options.verbose, "print each change");

  CLI::App* ctl = app.add_subcommand("ctl", "Give a running forwarder a command; try: ctl help");
  std::vector<std::string> command;
  ctl->add_option("--state-dir", options.stateDirectory, "the agent's state directory");
  ctl->add_option("--name", options.name, "of the forwarder");
  ctl->add_option("command", command, "the command and its arguments")->required();

  try {
    app.parse(argc, argv);
    const std::string fault = nameFault(options.name);
    if (!fault.empty()) throw CLI::ValidationError("--name", fault);
    options.rules = ruleOptions.rules();
    options.traffic = traffic.options();
    options.punt = punt.options();
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const std::exception& e) {  // CLI::ParseError, RuleError
    std::cerr << "korvel-forwarder: " << e.what() << "; see --help\n";
    return usageError;
  }
  if (*ctl) return runCtl(options.stateDirectory, options.name, command);
  return runForwarder(std::move(options));
}
