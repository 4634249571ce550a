// The services that the launcher gives the agent.
#pragma once

#include <functional>
#include <string>

#include "platform/brine/Store.h"
#include "platform/orrery/Database.h"
#include "platform/vela/ReactorLoop.h"

namespace P4Runtime {

// All of it outlives the agent. Functions are called on the reactor with the activity lock held.
struct AgentRuntime {
  Vela::ReactorLoop& loop;
  Orrery::Database& stateDatabase;
  Brine::Store& store;
  std::string stateDirectory;
  // Hands the traces and the like to the file system; `complete` runs on a later turn.
  std::function<void(std::function<void()> complete)> flushEntityLog;
  std::function<void(int status)> exit;  // does not return
  // The agent has been asked to exit (true), or the request was taken back. After a request the
  // launcher ends the process within two seconds, even if the reactor is busy. May be empty.
  std::function<void(bool)> exitIsNear = nullptr;
  // Operators may let the agent pretend that entries are programmed.
  bool pretendedProgrammingAllowed = false;
  bool storeIsNew = false;     // it was begun empty
  std::string storeText = {};  // in words for operators: whether the store was begun empty, and why
};

}  // namespace P4Runtime
