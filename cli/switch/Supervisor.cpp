#include "cli/switch/Supervisor.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "cli/switch/AgentConfiguration.h"
#include "platform/vela/UnixListener.h"
#include "platform/vela/WholeFile.h"

using std::chrono::milliseconds;

namespace {

using Clock = Supervised::Clock;
using Command = std::vector<std::string>;

constexpr const char* configurationName = "switch-agent.json";
constexpr const char* settingsName = "switch-settings.json";
constexpr const char* forwarderName = "main";
constexpr milliseconds lookPeriod{20};     // at a program that is not up yet
constexpr milliseconds endPatience{5000};  // with programs that are asked to end

Vela::UniqueFd endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int one : {SIGINT, SIGTERM}) sigaddset(&signals, one);
  if (std::signal(SIGHUP, SIG_DFL) == SIG_IGN) {
    std::signal(SIGHUP, SIG_IGN);  // nohup
  } else {
    sigaddset(&signals, SIGHUP);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  Vela::UniqueFd made(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
  if (made) return made;
  throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
}

Command agentCommand(const SwitchOptions& options, const SwitchDirectory& directory,
                     const std::string& self) {
  Command command{self,          "agent",
                  "--config",    directory.file(configurationName),
                  "--settings",  directory.file(settingsName),
                  "--state-dir", directory.path()};
  if (options.cpuPort) command.push_back("--create-cpu-device");
  if (!options.orrery.empty()) command.insert(command.end(), {"--orrery", options.orrery});
  return command;
}

std::string forwarderProgram(const SwitchOptions& options, const std::string& self) {
  if (!options.forwarder.empty()) return options.forwarder;
  return std::filesystem::path(self).parent_path() / "korvel-forwarder";
}

Command forwarderCommand(const SwitchOptions& options, const SwitchDirectory& directory,
                         const std::string& self) {
  Command command{forwarderProgram(options, self), "--state-dir", directory.path(), "--forward"};
  const auto add = [&command](const char* option, const std::string& value) {
    command.insert(command.end(), {option, value});
  };
  if (options.cpuPort) {
    add("--cpu-port", std::to_string(*options.cpuPort));
    add("--cpu-device", cpuDeviceOf(options));
  }
  if (options.dropPort) add("--drop-port", std::to_string(*options.dropPort));
  if (options.priorityQueues) add("--priority-queues", std::to_string(*options.priorityQueues));
  if (!options.program.empty()) add("--program", options.program);
  if (!options.pcapDirectory.empty())
    add("--pcap", std::filesystem::absolute(options.pcapDirectory));
  return command;
}

// Under the first name that is free, for what it is worth: trouble is no reason not to go on.
void keepFile(const std::string& path) {
  std::error_code error;
  for (int number = 1; std::filesystem::exists(path, error); ++number) {
    const std::string kept = fmt::format("{}.{}", path, number);
    if (std::filesystem::exists(kept, error)) continue;
    std::filesystem::rename(path, kept, error);
    if (error) return;
  }
}

// Whether a process takes connections there.
bool isServed(const std::string& path) {
  const Vela::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket || !std::filesystem::exists(path)) return false;
  const Vela::UnixAddress address(path);
  return connect(socket.get(), address.get(), Vela::UnixAddress::size()) == 0 || errno == EAGAIN;
}

}  // namespace

Supervisor::Supervisor(const SwitchOptions& options, const SwitchDirectory& directory,
                       const SwitchLog& log, const std::string& self)
    : options_(options),
      directory_(directory),
      log_(log),
      signals_(endSignals()),
      agent_("agent", agentCommand(options, directory, self), directory.lock(), log),
      forwarder_("forwarder", forwarderCommand(options, directory, self), directory.lock(), log),
      view_(directory.path()),
      ports_(options.interfaces) {
  forwarder_.beforeRestartIs([this] { keepRecordings(); });
}

// The options of a switch hold, not the settings of one that was killed.
void Supervisor::run() {
  std::filesystem::remove(directory_.file(settingsName));
  writeConfiguration(ports_);
  agent_.start();
  forwarder_.start();
  while (!stopping_) {
    doWait();
    if (stopping_) break;
    for (Supervised* program : {&agent_, &forwarder_}) {
      if (program->isRunning()) program->handleEnd();
      program->maybeStart(Clock::now());
    }
    maybeFindForwarder();
    tellServiceManager();
  }
  Vela::ServiceManager::stopping();
  doStop();
}

void Supervisor::writeConfiguration(const std::map<uint32_t, std::string>& ports) const {
  Vela::writeWholeFile(directory_.file(configurationName),
                       agentConfiguration(options_, directory_.path(), ports));
}

void Supervisor::doWait() {
  pollfd watched[] = {{signals_.get(), POLLIN, 0},      {view_.change(), POLLIN, 0},
                      {agent_.ending(), POLLIN, 0},     {agent_.output(), POLLIN, 0},
                      {forwarder_.ending(), POLLIN, 0}, {forwarder_.output(), POLLIN, 0}};
  if (poll(watched, std::size(watched), millisecondsToWait()) <= 0) return;
  if (watched[0].revents) handleSignal();
  if (watched[1].revents) handleAgentPicture();
  if (watched[3].revents) agent_.readOutput();
  if (watched[5].revents) forwarder_.readOutput();
}

void Supervisor::handleSignal() {
  signalfd_siginfo info;
  if (read(signals_.get(), &info, sizeof info) != sizeof info) return;
  if (info.ssi_signo == SIGHUP && manager_.isPresent()) {
    agent_.signal(SIGHUP);
    manager_.reloading();
    if (saidReady_) saidReady_ = manager_.ready();
  } else {
    stopping_ = true;
  }
}

// Both have been up before it is told that the switch is ready; later one of them may be away.
void Supervisor::tellServiceManager() {
  if (!manager_.isPresent()) return;
  manager_.alive();
  std::string away;
  for (const auto& [program, name] : {std::pair(&agent_, "agent"), {&forwarder_, "forwarder"}}) {
    if (!program->isRunning() || !program->isUp()) away += fmt::format(" {}", name);
  }
  manager_.statusIs(away.empty() ? "serves on " + options_.server.text : "waits for:" + away);
  if (saidReady_ || !away.empty()) return;
  saidReady_ = manager_.ready();
}

int Supervisor::millisecondsToWait() const {
  std::optional<milliseconds> wait = manager_.alivePeriod();
  const auto within = [&wait](milliseconds time) { wait = std::min(wait.value_or(time), time); };
  if (forwarder_.isRunning() && !forwarder_.isUp()) within(lookPeriod);
  for (const Supervised* program : {&agent_, &forwarder_}) {
    const auto start = program->nextStart();
    if (!start) continue;
    within(std::max(std::chrono::ceil<milliseconds>(*start - Clock::now()), milliseconds(0)));
  }
  return wait ? static_cast<int>(wait->count()) : -1;
}

// A picture may be of an agent that has ended since.
void Supervisor::handleAgentPicture() {
  view_.clearChange();
  const AgentPicture picture = view_.picture();
  if (picture.pid == 0 || picture.pid != agent_.pid()) return;
  if (picture.listens) agent_.upIs();
  if (picture.listens && !saidListening_) {
    fmt::print("Server listening on {}\n", options_.server.text);
    std::fflush(stdout);
    saidListening_ = true;
  }
  if (picture.ports == ports_) return;
  try {
    writeConfiguration(picture.ports);
    ports_ = picture.ports;
  } catch (const std::system_error& e) {
    log_.say("switch",
             fmt::format("{}; a restart of the agent would not know the ports", e.what()));
  }
}

void Supervisor::maybeFindForwarder() {
  if (!forwarder_.isRunning() || forwarder_.isUp()) return;
  if (isServed(directory_.file(fmt::format("forwarder-{}.sock", forwarderName)))) forwarder_.upIs();
}

// The next forwarder begins new ones: "eth1_in.pcap" becomes "eth1_in.pcap.1", or the next number.
void Supervisor::keepRecordings() const {
  if (options_.pcapDirectory.empty()) return;
  for (const auto& [port, interface] : ports_) {
    for (const char* way : {"in", "out"}) {
      keepFile(fmt::format("{}/{}_{}.pcap", options_.pcapDirectory, interface, way));
    }
  }
}

// Both are gone when this returns.
void Supervisor::doStop() {
  const auto deadline = Clock::now() + endPatience;
  for (const Supervised* program : {&forwarder_, &agent_}) program->signal(SIGTERM);
  while (agent_.isRunning() || forwarder_.isRunning()) {
    if (Clock::now() > deadline) {
      for (const Supervised* program : {&forwarder_, &agent_}) program->signal(SIGKILL);
    }
    pollfd watched[] = {{agent_.ending(), POLLIN, 0},
                        {agent_.output(), POLLIN, 0},
                        {forwarder_.ending(), POLLIN, 0},
                        {forwarder_.output(), POLLIN, 0}};
    (void)poll(watched, std::size(watched), 100);
    if (watched[1].revents) agent_.readOutput();
    if (watched[3].revents) forwarder_.readOutput();
    agent_.forget();
    forwarder_.forget();
  }
}
