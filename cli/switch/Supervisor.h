// The running switch: its two programs, and all that they need of each other.
#pragma once

#include <poll.h>

#include <chrono>
#include <string>
#include <vector>

#include "cli/switch/AgentView.h"
#include "cli/switch/Supervised.h"
#include "cli/switch/SwitchDirectory.h"
#include "cli/switch/SwitchLog.h"
#include "cli/switch/SwitchOptions.h"
#include "platform/vela/ServiceManager.h"

// Threads: one, the process's main thread; it blocks the signals that end the switch, in all
// threads made later.
class Supervisor {
 public:
  // All outlive it. `self` is the korvel program. Throws std::system_error.
  Supervisor(const SwitchOptions& options, const SwitchDirectory& directory, const SwitchLog& log,
             const std::string& self);
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // Starts both programs, and starts either again when it ends, until a signal ends the switch;
  // both have ended then. A service manager is told when both work; SIGHUP has the agent read its
  // files again then, in place of an end. Throws StartError when one of them cannot do its work
  // from the beginning.
  void run();

 private:
  void writeConfiguration(const std::map<uint32_t, std::string>& ports) const;
  void doWait();
  int millisecondsToWait() const;
  void handleSignal();
  void handleAgentPicture();
  void tellServiceManager();
  void maybeFindForwarder();
  void keepRecordings() const;
  void doStop();

  const SwitchOptions& options_;
  const SwitchDirectory& directory_;
  const SwitchLog& log_;
  Vela::ServiceManager manager_;
  const Vela::UniqueFd signals_;
  Supervised agent_;
  Supervised forwarder_;
  AgentView view_;
  bool stopping_ = false;
  bool saidListening_ = false;
  bool saidReady_ = false;
  std::map<uint32_t, std::string> ports_;  // that the agent's next start finds
};
