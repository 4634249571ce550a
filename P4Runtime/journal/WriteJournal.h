// The agent's journal of Writes: follows its configuration, and takes the server's calls.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/journal/JournalConfig.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// Threads: the reactor, with the activity lock held. One a process.
// Errors: trouble is printed and stands in the status; the agent goes on.
class WriteJournal {
 public:
  // Made before Writes are let in. `isSwitchEmpty`: there are no entries.
  WriteJournal(std::string stateDirectory, Vela::Ptr<const JournalConfig> config,
               Vela::Ptr<JournalStatus> status, bool isSwitchEmpty);
  ~WriteJournal();
  WriteJournal(const WriteJournal&) = delete;
  WriteJournal& operator=(const WriteJournal&) = delete;

  // Now and then: brings the status up to date, and tries again what has failed.
  void update();

 private:
  void handleConfig();
  void maybeBegin();
  void doBegin();
  void keptInIs(const std::string& directory);

  const std::string stateDirectory_;
  const Vela::Ptr<const JournalConfig> config_;
  const Vela::Ptr<JournalStatus> status_;
  std::vector<Vela::Observation> changes_;
  bool isSwitchEmpty_;  // no Write has been let in yet, and there are no entries
  // The directory whose journal has all Writes up to now; "": none. A file tells the next process.
  std::string keptIn_;
};

}  // namespace P4Runtime
