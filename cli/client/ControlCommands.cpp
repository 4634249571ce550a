#include "cli/client/ControlCommands.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cli/client/AgentRequest.h"
#include "cli/client/ClientOptions.h"
#include "cli/client/StatusSections.h"
#include "platform/orrery/Client.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds stopAnswerTime(1000);
constexpr milliseconds endTime(10000);
constexpr const char* pipelinePath = "p4runtime/pipeline";
constexpr const char* mappingStatusPath = "p4runtime/status/port-mapping";

struct Options : ClientOptions {
  std::string port;
  std::string intf;
  std::string file;
};
using SharedOptions = std::shared_ptr<Options>;

void printAnswer(const ClientOptions& options, const std::string& text) {
  if (!options.json) {
    fmt::print("{}\n", text);
    return;
  }
  const Vela::Json json(cJSON_CreateObject());
  cJSON_AddTrueToObject(json.get(), "ok");
  cJSON_AddStringToObject(json.get(), "answer", text.c_str());
  fmt::print("{}\n", Vela::jsonText(*json));
}

void runCommand(const ClientOptions& options, const char* command,
                const std::vector<std::string>& arguments) {
  printAnswer(options, execute(options.stateDirectory, command, arguments));
}

void runPortList(const Options& options) {
  Orrery::Client client(options.stateDirectory);
  const Vela::Json answer = client.get(mappingStatusPath);
  const cJSON* attributes = cJSON_GetObjectItemCaseSensitive(answer.get(), "attributes");
  const auto mapped = sortedEntries(attributes, "intfOfPort");
  const auto refused = sortedEntries(attributes, "refused");
  if (options.json) {
    const Vela::Json json(cJSON_CreateObject());
    const auto add = [&](const char* name, const auto& entries) {
      cJSON* object = cJSON_AddObjectToObject(json.get(), name);
      for (const auto& [port, text] : entries) {
        cJSON_AddStringToObject(object, port.c_str(), text.c_str());
      }
    };
    add("ports", mapped);
    add("refused", refused);
    fmt::print("{}\n", Vela::jsonText(*json));
    return;
  }
  if (mapped.empty() && refused.empty()) {
    fmt::print("no port is mapped; map one with 'korvel port map PORT INTERFACE'\n");
  }
  for (const auto& [port, intf] : mapped) fmt::print("{:<12} {}\n", port, intf);
  for (const auto& [port, why] : refused) fmt::print("{:<12} refused: {}\n", port, why);
}

// A handle of the agent's process; never of another process, even after its end.
class AgentHandle {
 public:
  explicit AgentHandle(pid_t pid)
      : descriptor_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~AgentHandle() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  AgentHandle(const AgentHandle&) = delete;
  AgentHandle& operator=(const AgentHandle&) = delete;

  // False when there is no permission.
  bool terminate() const {
    return descriptor_ < 0 ||
           syscall(SYS_pidfd_send_signal, descriptor_, SIGTERM, nullptr, 0) == 0 || errno == ESRCH;
  }
  bool waitForEnd(milliseconds timeout) const {
    pollfd watched{descriptor_, POLLIN, 0};
    return descriptor_ < 0 || poll(&watched, 1, static_cast<int>(timeout.count())) == 1;
  }

 private:
  const int descriptor_;
};

// A signal ends an agent that is too busy to answer.
void runStop(const ClientOptions& options) {
  const auto pid = static_cast<pid_t>(Orrery::Client(options.stateDirectory).agentPid());
  const AgentHandle agent(pid);
  try {
    execute(options.stateDirectory, "stop", {}, stopAnswerTime);
  } catch (const Orrery::ClientError&) {
    if (!agent.waitForEnd(milliseconds(0)) && !agent.terminate()) throw;
  }
  if (!agent.waitForEnd(endTime)) {
    throw std::runtime_error(fmt::format("the agent still runs; end it with 'kill -9 {}'", pid));
  }
  printAnswer(options, fmt::format("the agent (pid {}) has ended", pid));
}

void addPortCommands(CLI::App& app, const SharedOptions& options) {
  CLI::App* port = app.add_subcommand("port", "Which interface a P4 port means");
  port->require_subcommand(1);
  CLI::App* map =
      port->add_subcommand("map", "Have a P4 port mean an interface, until the agent ends");
  map->add_option("PORT", options->port, "P4 port id, 0 to 4294967295")->required();
  map->add_option("INTERFACE", options->intf, "Network interface, such as eth1")->required();
  map->callback([options] { runCommand(*options, "port map", {options->port, options->intf}); });
  CLI::App* unmap = port->add_subcommand("unmap", "Have a P4 port mean nothing");
  unmap->add_option("PORT", options->port, "P4 port id")->required();
  unmap->callback([options] { runCommand(*options, "port unmap", {options->port}); });
  CLI::App* list = port->add_subcommand("list", "Show the mappings, the refused ones too");
  list->callback([options] { runPortList(*options); });
  for (CLI::App* one : {map, unmap, list}) addClientOptions(*one, *options);
}

void addPipelineCommands(CLI::App& pipeline, const SharedOptions& options) {
  CLI::App* reset = pipeline.add_subcommand(
      "reset", "Have the agent go back from the pipeline that a controller pushed to the file");
  reset->callback([options] { runCommand(*options, "call", {pipelinePath, "reset"}); });
  CLI::App* diff = pipeline.add_subcommand(
      "diff", "Say which entries of the running pipeline have no place in another");
  diff->add_option("FILE", options->file, "pipeline file")->required();
  diff->callback([options] {
    const std::string file = std::filesystem::absolute(options->file).string();
    runCommand(*options, "call", {pipelinePath, "diff", file});
  });
  for (CLI::App* one : {reset, diff}) addClientOptions(*one, *options);
}

}  // namespace

void addControlCommands(CLI::App& app) {
  const auto options = std::make_shared<Options>();  // one command runs
  addPortCommands(app, options);
  CLI::App* enable =
      app.add_subcommand("enable", "Enable the agent, also while it is being disabled");
  enable->callback([options] { runCommand(*options, "enable", {}); });
  CLI::App* disable =
      app.add_subcommand("disable", "Have pipeline and plugins clean up, and then the agent end");
  disable->callback([options] { runCommand(*options, "disable", {}); });
  CLI::App* stop = app.add_subcommand("stop", "End the agent at once, and wait until it is gone");
  stop->callback([options] { runStop(*options); });
  addPipelineCommands(*app.get_subcommand("pipeline"), options);
  for (CLI::App* one : {enable, disable, stop}) addClientOptions(*one, *options);
}
