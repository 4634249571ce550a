// The ports as people see them: kept by the packet thread, read by any.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "forwarder/packets/PortCounts.h"

namespace Forwarder {

// A port as it is now.
struct PortReport {
  uint32_t port = 0;
  std::string device;
  bool up = false;
  bool cpu = false;
  std::string trouble;  // with the device or a file; empty when all is well
  std::string pcap;     // files, separated by blanks; empty: none
  PortCounts counts;
};

// Threads: any.
class PortBook {
 public:
  // What the report says, but for the counts.
  void portIs(const PortReport& report, std::shared_ptr<const LivePortCounts> counts) {
    const std::lock_guard lock(mutex_);
    ports_[report.port] = {report, std::move(counts)};
  }
  void portDel(uint32_t port) {
    const std::lock_guard lock(mutex_);
    ports_.erase(port);
  }
  std::vector<PortReport> reports() const {  // by id
    const std::lock_guard lock(mutex_);
    std::vector<PortReport> reports;
    for (const auto& [id, port] : ports_) {
      reports.push_back(port.report);
      reports.back().counts = port.counts->counts();
    }
    return reports;
  }

 private:
  struct Port {
    PortReport report;
    std::shared_ptr<const LivePortCounts> counts;
  };
  mutable std::mutex mutex_;
  std::map<uint32_t, Port> ports_;
};

}  // namespace Forwarder
