// The agent's port mapping and packet_in, kept up to date from its state database by a thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

struct cJSON;

namespace Orrery {
class Client;
}

namespace Forwarder {

// A plain value.
struct PuntPicture {
  std::string trouble;                    // why packetIn is not known; empty when it is
  bool reached = false;                   // the agent has told its ports
  std::string packetIn;                   // lines "ID NAME BITWIDTH"
  std::map<uint32_t, std::string> ports;  // port id -> device
  bool portsAreKnown = false;             // also while the agent runs no pipeline
  bool operator==(const PuntPicture&) const = default;
};

// Connects to the agent, again whenever it has gone, and follows its changes.
class PuntView {
 public:
  // `changed` is called by the view's thread whenever picture() is another one.
  PuntView(std::string stateDirectory, std::function<void()> changed);
  ~PuntView();  // returns within a second or so
  PuntView(const PuntView&) = delete;
  PuntView& operator=(const PuntView&) = delete;

  // Any thread. Null until the first attempt to reach the agent has ended. While the agent is away,
  // its last picture stays.
  std::shared_ptr<const PuntPicture> picture() const;

 private:
  void run();
  void doFollow();
  bool maybePublish(PuntPicture picture);
  static PuntPicture fetchPicture(Orrery::Client& client);
  void publish(PuntPicture picture);

  const std::string stateDirectory_;
  const std::function<void()> changed_;
  mutable std::mutex mutex_;  // guards picture_
  std::shared_ptr<const PuntPicture> picture_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace Forwarder
