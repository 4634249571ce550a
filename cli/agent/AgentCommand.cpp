#include "cli/agent/AgentCommand.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "P4Runtime/agent/AgentRuntime.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "cli/agent/AgentLibrary.h"
#include "cli/agent/NetworkPlatform.h"
#include "cli/agent/OutsideDatabase.h"
#include "cli/agent/ProvidedEntities.h"
#include "cli/agent/ServiceNotices.h"
#include "cli/agent/StopWatcher.h"
#include "cli/client/ClientOptions.h"
#include "platform/brine/StateDirectory.h"
#include "platform/brine/Store.h"
#include "platform/orrery/Config.h"
#include "platform/orrery/ConfigFile.h"
#include "platform/orrery/Database.h"
#include "platform/orrery/KeptSettings.h"
#include "platform/orrery/LayeredConfig.h"
#include "platform/orrery/Requests.h"
#include "platform/orrery/Server.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/Descriptors.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/Reloads.h"
#include "platform/vela/ServiceManager.h"

namespace {

constexpr int failed = 1;
constexpr int usage = 2;
// Descriptors of the agent's own; clients come on top.
constexpr size_t ownDescriptors = 96;

struct Options {
  std::string config;    // a file; empty: none, as the state database outside has it all
  std::string outside;   // the address of a state database; empty: no database is used
  std::string settings;  // a file; empty: they are not kept
  std::string stateDirectory;
  std::string library;
  bool createCpuDevice = false;
  bool allowPretendedProgramming = false;
  bool reflects = false;
};

// Ends a start with a line for standard error and an exit status. Without a line it was stopped.
struct StartFailure {
  std::string line;
  int status;
};

struct OpenedStore {
  std::unique_ptr<Brine::Store> store;
  std::string text;  // for operators
};

// Entries are worth more than a start without questions, so a store that is lost is kept aside.
OpenedStore rebuiltStore(const Brine::StoreOptions& options, const Brine::StoreError& loss) {
  std::string place;
  auto store = Brine::Store::rebuild(options, loss.trouble, &place);
  const std::string text = fmt::format("begun empty: {}; it was moved to {}", loss.what(), place);
  Vela::tellError(
      "{}; it was moved to {}, and the agent starts empty: controllers write their "
      "entries again",
      loss.what(), place);
  return {std::move(store), text};
}

OpenedStore openedOrRebuilt(const Brine::StoreOptions& options) try {
  return {Brine::Store::open(options), "taken up as the last process left it"};
} catch (const Brine::StoreError& e) {
  if (!Brine::isLoss(e.trouble)) throw;
  return rebuiltStore(options, e);
}

OpenedStore openStore(const Options& options) try {
  Brine::StoreOptions storeOptions;
  storeOptions.directory = options.stateDirectory;
  storeOptions.patience = std::chrono::seconds(1);
  return openedOrRebuilt(storeOptions);
} catch (const Brine::StoreError& e) {
  throw StartFailure{e.what(), failed};
}

void warnUnlessMemory(const std::string& directory) {
  if (Brine::isMemory(directory)) return;
  fmt::print(
      stderr,
      "korvel: the state directory {} is not on a tmpfs: the kernel writes its files to a "
      "device now and then, which takes time, and nothing is kept beyond a boot of the machine\n",
      directory);
}

// Where the configuration comes from: a file, a state database outside, or both, which hides
// settings of the file.
struct Configuration {
  explicit Configuration(Orrery::Database& database) : layers(database) {}
  Orrery::LayeredConfig layers;
  std::optional<Orrery::ConfigFile> file;
  std::unique_ptr<Orrery::RedisOrrery> outside;
};

void doLoadConfig(Configuration& configuration, Vela::ReactorLoop& loop, const Options& options,
                  const StopWatcher& stopWatcher) try {
  if (!options.config.empty()) {
    configuration.file.emplace(configuration.layers, options.config).load();
  }
  if (options.outside.empty()) return;
  configuration.outside =
      outsideDatabase(loop, configuration.layers, options.outside, options.stateDirectory);
  configuration.outside->load(configuration.file.has_value(),
                              [&stopWatcher] { return stopWatcher.requested(); });
} catch (const Orrery::ConfigError& e) {
  throw StartFailure{e.what(), usage};
} catch (const Orrery::AddressError& e) {
  throw StartFailure{e.what(), usage};
}

// What ends an agent is not for the next one; requests of commands go with it. `korvel switch`
// keeps the ports, as commands change them, too.
std::unique_ptr<Orrery::KeptSettings> keptSettings(Orrery::Database& database,
                                                   const Options& options) {
  if (options.settings.empty()) return nullptr;
  auto kept = std::make_unique<Orrery::KeptSettings>(
      database, options.settings,
      std::vector<std::string>{"p4runtime/config/agent/exitRequested", "p4runtime/config/cli",
                               "p4runtime/config/port-mapping", "p4runtime/config/system/enabled"});
  for (const std::string& trouble : kept->load()) Vela::tellError("{}", trouble);
  return kept;
}

// The setting holds in any case.
void keepSetting(Orrery::KeptSettings& settings, const cJSON& request) try {
  settings.note(request);
} catch (const std::system_error& e) {
  Vela::tellError("{}; the next start of the agent does not know this setting", e.what());
}

Vela::Ptr<P4Runtime::AgentConfig> agentConfig(const Orrery::Database& database) {
  const auto config = database.entity("p4runtime/config/agent");
  return Vela::Ptr<P4Runtime::AgentConfig>(static_cast<P4Runtime::AgentConfig*>(config.get()));
}

// Other parts read their own files again after it, such as those that the configuration names.
void doReloadConfig(Orrery::ConfigFile& file) {
  try {
    const auto lines = file.reload();
    for (const std::string& line : lines) Vela::tellError("{}", line);
  } catch (const Orrery::ConfigError& e) {
    Vela::tellError("{}; the configuration stays as it was", e.what());
  }
}

void doReload(Configuration& configuration, ServiceNotices& notices) {
  notices.whileReloading([&configuration] {
    if (configuration.file) doReloadConfig(*configuration.file);
    if (configuration.outside) configuration.outside->reload();
    for (const std::string& line : Vela::TheReloads().run()) {
      Vela::tellError("{}", line);
    }
    Vela::tellError("the configuration was read again");
  });
}

// SIGTERM and SIGINT take the same way out as an exit request.
void doRequestExit(const Orrery::Database& database) {
  agentConfig(database)->exitRequestedIs(true);
}

// A start that takes a while looks up between its steps.
void stopIfRequested(const StopWatcher& stopWatcher) {
  if (stopWatcher.requested()) throw StartFailure{"", 0};
}

P4Runtime::AgentRuntime runtimeOf(Vela::ReactorLoop& loop, Orrery::Database& database,
                                  const OpenedStore& opened, StopWatcher& stopWatcher,
                                  const Options& options) {
  const auto flushEntityLog = [&loop](std::function<void()> complete) {
    Scrivel::flush();
    loop.post(std::move(complete));
  };
  // Server threads are running, so nothing is destroyed. Confirmed entries are committed already;
  // a batch that is half written must not be.
  const auto exit = [](int status) { _exit(status); };
  const auto exitIsNear = [&stopWatcher](bool near) { stopWatcher.exitIsNear(near); };
  return {loop,
          database,
          *opened.store,
          options.stateDirectory,
          flushEntityLog,
          exit,
          exitIsNear,
          options.allowPretendedProgramming,
          opened.store->committedSequence() == 0,
          opened.text};
}

// gRPC's library adds the service to the servers of the process that loads it, and to none
// otherwise.
void addReflection() {
  if (dlopen(KORVEL_GRPC_REFLECTION, RTLD_NOW | RTLD_GLOBAL)) return;
  throw StartFailure{
      fmt::format("cannot load gRPC's reflection: {}; leave out --grpc-reflection", dlerror()),
      failed};
}

void runAgent(const Options& options, StopWatcher& stopWatcher) {
  Vela::ReactorLoop loop;
  Vela::TheReactorLoopIs(&loop);
  const auto database = Orrery::embeddedDatabase(loop);
  OpenedStore opened;
  std::unique_ptr<Orrery::KeptSettings> settings;
  std::unique_ptr<Orrery::Server> server;
  std::unique_ptr<P4Runtime::AgentRuntime> runtime;
  std::unique_ptr<NetworkPlatform> network;
  std::optional<ServiceNotices> notices;
  Configuration configuration(*database);
  {
    const Vela::ActivityLock lock;
    const AgentLibrary library = loadAgentLibrary(options.library);
    if (options.reflects) addReflection();
    library.registerTypes();
    network = std::make_unique<NetworkPlatform>(loop, *database);
    provideEntities(*database, options.stateDirectory);
    doLoadConfig(configuration, loop, options, stopWatcher);
    settings = keptSettings(*database, options);
    stopIfRequested(stopWatcher);
    opened = openStore(options);
    warnUnlessMemory(options.stateDirectory);
    stopIfRequested(stopWatcher);
    const std::string cpuDevice = agentConfig(*database)->cpuDevice().text();
    if (options.createCpuDevice) network->createCpuDevice(cpuDevice);
    network->start(cpuDevice);
    Orrery::carriedOutHandlerIs([&settings](const cJSON& request) {
      if (settings) keepSetting(*settings, request);
    });
    server = std::make_unique<Orrery::Server>(
        loop, *database, options.stateDirectory + "/orrery.sock", std::chrono::seconds(10));
    runtime = std::make_unique<P4Runtime::AgentRuntime>(
        runtimeOf(loop, *database, opened, stopWatcher, options));
    library.start("p4runtime", runtime.get());
    notices.emplace(loop, *database);
    if (configuration.outside) configuration.outside->start();
    stopWatcher.onHangUpIs([&] { loop.post([&] { doReload(configuration, *notices); }); });
    stopWatcher.onRequestIs([&] {
      Vela::ServiceManager::stopping();
      loop.post([&] { doRequestExit(*database); });
    });
  }
  loop.run();
}

int agentMain(const Options& options) {
  signal(SIGPIPE, SIG_IGN);  // a peer that went away is an error of the write
  try {
    Vela::raiseDescriptorLimit();
    Vela::requireDescriptors(ownDescriptors);
    runAgent(options, *new StopWatcher);
    return 0;
  } catch (const StartFailure& failure) {
    if (!failure.line.empty()) Vela::tellError("{}", failure.line);
    return failure.status;
  } catch (const std::exception& e) {
    Vela::tellError("{}", e.what());
    return failed;
  }
}

}  // namespace

void addAgentCommand(CLI::App& app) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("agent", "Run the P4Runtime agent");
  CLI::Option* config =
      command->add_option("--config", options->config, "Configuration file (JSON)");
  CLI::Option* outside = command->add_option(
      "--orrery", options->outside,
      "Take configuration from a Redis, above that of the file, and put status there: "
      "redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE][?prefix=TEXT] or unix:/PATH[?prefix=TEXT]; "
      "$KORVEL_ORRERY_PASSWORD or &password-file=FILE keeps the password off the command line");
  outside->type_name("URL");
  command->add_option("--settings", options->settings,
                      "Keep settings that `korvel set`, `create` and `delete` make in this file; "
                      "they hold again when the agent is started with it");
  command
      ->add_option("--state-dir", options->stateDirectory,
                   "Where entries, sockets and traces live; best on a tmpfs")
      ->default_str(defaultStateDirectory());
  command->add_option("--library", options->library, "The agent's library, libP4Runtime.so");
  command->add_flag("--create-cpu-device", options->createCpuDevice,
                    "Make the device packets to the controller come over, a TAP; cpuDevice of "
                    "p4runtime/config/agent is its name (p4controller)");
  command->add_flag("--allow-pretended-programming", options->allowPretendedProgramming,
                    "Let `korvel set p4runtime/batchStatus pretendHwProgramming true` confirm "
                    "entries that nobody programs, for tests of controllers");
  command->add_flag("--grpc-reflection", options->reflects,
                    "Let clients ask the server for its services and messages, for tools such as "
                    "grpcurl");
  command->callback([options, config, outside] {
    if (config->empty() && outside->empty()) throw CLI::RequiredError("--config or --orrery");
    if (options->stateDirectory.empty()) options->stateDirectory = defaultStateDirectory();
    const int status = agentMain(*options);
    std::fflush(nullptr);
    _exit(status);
  });
}
