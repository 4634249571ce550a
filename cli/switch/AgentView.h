// What the switch wants to know of its agent, kept up to date from the state database by a thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "platform/vela/EventDescriptor.h"

namespace Orrery {
class Client;
}

// A plain value.
struct AgentPicture {
  pid_t pid = 0;                          // of the agent that said it; 0: none has yet
  bool listens = false;                   // its server does
  std::map<uint32_t, std::string> ports;  // mapped, port id -> interface
  bool operator==(const AgentPicture&) const = default;
};

// Connects to the agent, again whenever it has gone, and follows its changes.
class AgentView {
 public:
  explicit AgentView(std::string stateDirectory);  // throws std::system_error
  ~AgentView();                                    // returns within a second or so
  AgentView(const AgentView&) = delete;
  AgentView& operator=(const AgentView&) = delete;

  // Any thread. The last one, of an agent that has gone, stays.
  AgentPicture picture() const;
  // Readable whenever the picture is another one; clearChange() makes it wait for the next.
  int change() const { return change_.get(); }
  void clearChange() const;

 private:
  void run();
  void doFollow();
  void publish(AgentPicture picture);

  const std::string stateDirectory_;
  const Vela::EventDescriptor change_;
  mutable std::mutex mutex_;  // guards picture_
  AgentPicture picture_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};
