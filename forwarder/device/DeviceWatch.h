// The network devices of this process's namespace, followed as they come, go and change.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "platform/wirra/devices/LinkSocket.h"

namespace Forwarder {

// Threads: one at a time.
class DeviceWatch {
 public:
  DeviceWatch();  // throws std::system_error

  int descriptor() const { return events_.descriptor(); }  // readable when something has changed
  // Takes the changes that have come. Returns whether there were any. Throws std::system_error.
  bool update();
  // Null when there is none of this name. Until the next update().
  const Wirra::Link* device(const std::string& name) const;

 private:
  void readAll();

  Wirra::LinkEvents events_;
  std::unordered_map<uint32_t, Wirra::Link> devices_;  // by index
  std::vector<Wirra::Link> changes_;
};

}  // namespace Forwarder
