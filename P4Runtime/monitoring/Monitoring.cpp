#include "P4Runtime/monitoring/Monitoring.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

#include "P4Runtime/monitoring/AgentMetrics.h"
#include "P4Runtime/monitoring/RowSearch.h"
#include "P4Runtime/monitoring/StatusJson.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

Monitoring::Monitoring(Vela::Ptr<const MonitoringConfig> config, Vela::Ptr<MonitoringStatus> status,
                       Observed agent)
    : config_(std::move(config)),
      status_(std::move(status)),
      agent_(std::make_shared<const Observed>(std::move(agent))) {
  change_ = config_->addressAttribute().observe([this] { handleAddress(); });
  handleAddress();
}

Monitoring::~Monitoring() { end(); }

void Monitoring::handleAddress() {
  end();
  status_->addressIs("");
  status_->troubleIs("");
  if (config_->address().empty()) return;
  try {
    doServe();
    status_->addressIs(server_->address());
  } catch (const std::exception& e) {
    status_->troubleIs(e.what());
    fmt::print(stderr, "korvel: no metrics are served (p4runtime/config/monitoring): {}\n",
               e.what());
  }
}

// The server's threads take the activity lock for each answer.
void Monitoring::doServe() {
  MonitoringContents contents;
  contents.metrics = [agent = agent_](bool isOpen) {
    const Vela::ActivityLock lock;
    return metricsText(*agent,
                       isOpen ? Exposition::Form::openMetrics : Exposition::Form::prometheus);
  };
  contents.status = [agent = agent_] {
    const Vela::ActivityLock lock;
    return statusJson(*agent);
  };
  contents.rows = [agent = agent_](const std::string& table, const std::string& wanted) {
    return rowsJson(*agent, table, wanted);
  };
  server_ = std::make_unique<MonitoringServer>(config_->address(), std::move(contents));
}

// A thread of the server may wait for the lock that the caller holds: it must not be waited for.
void Monitoring::end() {
  if (!server_) return;
  std::thread([server = std::move(server_)]() mutable { server.reset(); }).detach();
}

}  // namespace P4Runtime
