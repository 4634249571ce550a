#include "P4Runtime/monitoring/Monitoring.h"

#include <exception>
#include <thread>
#include <utility>

#include "P4Runtime/monitoring/AgentMetrics.h"
#include "P4Runtime/monitoring/RowSearch.h"
#include "P4Runtime/monitoring/StatusJson.h"
#include "PI/proto/pi_server_shared.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {

Monitoring::Monitoring(Vela::Ptr<const MonitoringConfig> config,
                       Vela::Ptr<const P4RuntimeConfig::SecurityConfig> security,
                       Vela::Ptr<MonitoringStatus> status, Observed agent)
    : config_(std::move(config)),
      security_(std::move(security)),
      status_(std::move(status)),
      agent_(std::make_shared<const Observed>(std::move(agent))) {
  change_ = config_->addressAttribute().observe([this] { handleAddress(); });
  handleAddress();
}

Monitoring::~Monitoring() { end(); }

void Monitoring::handleAddress() {
  end();
  status_->addressIs("");
  status_->securityIs("");
  status_->troubleIs("");
  if (config_->address().empty()) return;
  try {
    doServe();
    status_->addressIs(server_->address());
    status_->securityIs(server_->isSecured() ? "TLS, clients need a certificate"
                                             : "plain, for this machine alone");
  } catch (const std::exception& e) {
    status_->troubleIs(e.what());
    Vela::tellError("no metrics are served (p4runtime/config/monitoring): {}", e.what());
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
  server_ = std::make_unique<MonitoringServer>(config_->address(), std::move(contents),
                                               [this] { return tls(); });
}

std::unique_ptr<pi::ServerTls> Monitoring::tls() const {
  if (security_->certificate().empty()) return nullptr;
  return pi::ServerTls::make({.certificate = security_->certificate().c_str(),
                              .key = security_->key().c_str(),
                              .client_ca = security_->clientCa().c_str(),
                              .crl = security_->crl().c_str()});
}

// A thread of the server may wait for the lock that the caller holds: it must not be waited for.
void Monitoring::end() {
  if (!server_) return;
  std::thread([server = std::move(server_)]() mutable { server.reset(); }).detach();
}

}  // namespace P4Runtime
