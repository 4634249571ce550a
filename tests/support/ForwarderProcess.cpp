// See ForwarderProcess.h.
#include "tests/support/ForwarderProcess.h"

#include <sstream>
#include <stdexcept>

namespace TestSupport {

ForwarderProcess::ForwarderProcess(std::string stateDirectory, std::vector<std::string> options)
    : stateDirectory_(std::move(stateDirectory)), options_(std::move(options)) {}

std::string ForwarderProcess::output() const {
  return fileText(stateDirectory_ + ".forwarder-output");
}

void ForwarderProcess::start() {
  std::vector<std::string> arguments{binaryPath("korvel-forwarder"), "--state-dir",
                                     stateDirectory_};
  arguments.insert(arguments.end(), options_.begin(), options_.end());
  const std::string output = stateDirectory_ + ".forwarder-output";
  process_ = std::make_unique<Process>(arguments, output, output);
}

void ForwarderProcess::kill() { process_->kill(); }

bool ForwarderProcess::waitReady() {
  return waitUntil([this] { return ctl({"stats"}).exit.code == 0; }, process_->descriptor());
}

bool ForwarderProcess::waitAttached() {
  const auto attached = [this] {
    return ctl({"stats"}).output.find("attached yes") != std::string::npos;
  };
  return waitUntil(attached, process_->descriptor());
}

CommandResult ForwarderProcess::ctl(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {binaryPath("korvel-forwarder"), "ctl"});
  arguments.insert(arguments.end(), {"--state-dir", stateDirectory_});
  return run(arguments);
}

std::map<std::string, std::string> ForwarderProcess::stats() const {
  const CommandResult result = ctl({"stats"});
  if (result.exit.code != 0) throw std::runtime_error("forwarder: " + result.error);
  std::map<std::string, std::string> counters;
  std::istringstream lines(result.output);
  for (std::string name, value; lines >> name && std::getline(lines >> std::ws, value);) {
    counters[name] = value;
  }
  return counters;
}

uint64_t ForwarderProcess::programmedChanges() const {
  const auto counters = stats();
  uint64_t sum = 0;
  for (const char* name : {"inserted", "replaced", "deleted"})
    sum += std::stoull(counters.at(name));
  return sum;
}

}  // namespace TestSupport
