// Executes the requests in the configuration's CLI directory and puts the answers into the
// status's.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "P4Runtime/companion/Cli.h"
#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/Timer.h"

namespace P4Runtime {

// Runs with the request's arguments and returns the answer for people. A refusal or a failure is a
// std::exception, whose words become the answer. Runs on the reactor with the lock held.
struct CliCommand {
  std::string usage;  // "port map PORT INTERFACE"
  size_t fewest;      // of arguments
  size_t most;
  std::function<std::string(const std::vector<std::string>& arguments)> run;
};
using CliCommands = std::map<std::string, CliCommand>;  // by name: "port map"

// Runs on the reactor. Each request, also one from before this object, is executed once, on a later
// turn. Its answer goes with the request. An answer that is not taken goes after some minutes, or
// when there are many, together with its request.
class CliSm : public Vela::RefCounted {
 public:
  static constexpr size_t mostAnswers = 100;
  static constexpr std::chrono::minutes longestAnswer{5};
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // `loop` outlives this.
  CliSm(Vela::ReactorLoop& loop, Vela::Ptr<CliConfigDir> configDir,
        Vela::Ptr<CliStatusDir> statusDir, CliCommands commands,
        Clock clock = std::chrono::steady_clock::now);
  ~CliSm() override;

  void handleRequest(const std::string& id);  // came or went
  void doRemoveOldAnswers();

  // Runs `done` once requesters have taken the latest answers, or a moment later. A request may end
  // the process, and its requester waits for the answer.
  void whenAnswersAreTaken(std::function<void()> done);

 private:
  using Time = std::chrono::steady_clock::time_point;
  void doExecute(const std::string& id);
  std::string runCommand(const CliRequest& request) const;
  void doRemove(const std::string& id);
  bool awaitsTaker() const;
  void maybeTellTaken();

  Vela::ReactorLoop& loop_;
  const Vela::Ptr<CliConfigDir> configDir_;
  const Vela::Ptr<CliStatusDir> statusDir_;
  const CliCommands commands_;
  const Clock clock_;
  std::map<std::string, Time> answers_;  // when each was given
  std::function<void()> taken_;
  Vela::Observation requestsChange_;
  Vela::Timer oldAnswersTimer_;
  Vela::Timer takenTimer_;
  std::shared_ptr<CliSm*> alive_;  // null once this has gone; posts look there first
};

}  // namespace P4Runtime
