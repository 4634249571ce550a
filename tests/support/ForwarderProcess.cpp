// See ForwarderProcess.h.
#include "tests/support/ForwarderProcess.h"

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

CommandResult ForwarderProcess::ctl(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {binaryPath("korvel-forwarder"), "ctl"});
  arguments.insert(arguments.end(), {"--state-dir", stateDirectory_});
  return run(arguments);
}

}  // namespace TestSupport
