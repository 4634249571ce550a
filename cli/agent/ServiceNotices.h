// Keeps the service manager informed of the agent: whether it serves, in one line, and that its
// reactor runs.
#pragma once

#include <memory>
#include <string>

#include "platform/orrery/Database.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/ServiceManager.h"
#include "platform/vela/Timer.h"

// Nothing happens without a service manager. Call with the activity lock held; loop and database
// must outlive it.
class ServiceNotices {
 public:
  ServiceNotices(Vela::ReactorLoop& loop, const Orrery::Database& database);

  // Runs `work` between the notices of its begin and end.
  template <typename Work>
  void whileReloading(Work work) {
    manager_.reloading();
    work();
    if (isReady_) isReady_ = manager_.ready();
  }

 private:
  void tell();

  const Orrery::Database& database_;
  Vela::ServiceManager manager_;
  std::unique_ptr<Vela::Timer> statusTimer_;
  std::unique_ptr<Vela::Timer> aliveTimer_;
  bool isReady_ = false;
};

// From the attributes of p4runtime/status/agent and p4runtime/status/system.
std::string serviceStatus(const Orrery::Database& database);
