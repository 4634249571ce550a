#include "forwarder/device/DeviceWatch.h"

#include <utility>

namespace Forwarder {

// Events are taken from before the devices are read, so that none gets lost between.
DeviceWatch::DeviceWatch() { readAll(); }

void DeviceWatch::readAll() {
  devices_.clear();
  for (Wirra::Link& link : Wirra::allLinks()) {
    const uint32_t index = link.index;
    devices_[index] = std::move(link);
  }
}

bool DeviceWatch::update() {
  constexpr size_t most = 1000;
  changes_.clear();
  if (!events_.read(most, &changes_)) {
    readAll();
    return true;
  }
  for (Wirra::Link& link : changes_) {
    if (link.removed) {
      devices_.erase(link.index);
    } else {
      const uint32_t index = link.index;
      devices_[index] = std::move(link);
    }
  }
  return !changes_.empty();
}

const Wirra::Link* DeviceWatch::device(const std::string& name) const {
  for (const auto& [index, link] : devices_) {
    if (link.name == name) return &link;
  }
  return nullptr;
}

}  // namespace Forwarder
