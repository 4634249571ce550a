// The agent's monitoring: follows its configuration, and serves metrics and page while it names an
// address.
#pragma once

#include <memory>

#include "P4Runtime/companion/SecurityConfig.h"
#include "P4Runtime/monitoring/MonitoringConfig.h"
#include "P4Runtime/monitoring/MonitoringServer.h"
#include "P4Runtime/monitoring/Observed.h"

namespace P4Runtime {

// Threads: the reactor, with the activity lock held.
// Errors: trouble with the address is printed and stands in the status; the agent goes on.
class Monitoring {
 public:
  // The certificates of `security` are those of the P4Runtime server.
  Monitoring(Vela::Ptr<const MonitoringConfig> config,
             Vela::Ptr<const P4RuntimeConfig::SecurityConfig> security,
             Vela::Ptr<MonitoringStatus> status, Observed agent);
  ~Monitoring();

 private:
  void handleAddress();
  void doServe();
  void end();
  std::unique_ptr<pi::ServerTls> tls() const;  // null: there are no certificates

  const Vela::Ptr<const MonitoringConfig> config_;
  const Vela::Ptr<const P4RuntimeConfig::SecurityConfig> security_;
  const Vela::Ptr<MonitoringStatus> status_;
  const std::shared_ptr<const Observed> agent_;
  std::unique_ptr<MonitoringServer> server_;
  Vela::Observation change_;
};

}  // namespace P4Runtime
