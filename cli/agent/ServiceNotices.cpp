#include "cli/agent/ServiceNotices.h"

#include <fmt/format.h>

#include <chrono>

namespace {

constexpr const char* agentPath = "p4runtime/status/agent";
constexpr const char* systemPath = "p4runtime/status/system";
constexpr std::chrono::milliseconds statusPeriod{200};

std::string textOf(const Orrery::Database& database, const char* path, const char* name) {
  const auto entity = database.entity(path);
  const Vela::AttributeBase* attribute = entity ? entity->attribute(name) : nullptr;
  return attribute ? attribute->text() : "";
}

bool isTrue(const Orrery::Database& database, const char* path, const char* name) {
  return textOf(database, path, name) == "true";
}

std::string programmersText(const Orrery::Database& database) {
  if (isTrue(database, agentPath, "pretendsProgramming")) return "PRETENDING to program";
  const std::string count = textOf(database, agentPath, "forwardingAgents");
  return count == "0" ? "NO FORWARDING AGENT is attached, writes are refused"
                      : "forwarding agents: " + count;
}

// It is ready, too, when it has been configured not to serve.
bool serves(const Orrery::Database& database) {
  return isTrue(database, agentPath, "serverListens") ||
         textOf(database, "p4runtime/config/system", "enabled") == "false";
}

}  // namespace

std::string serviceStatus(const Orrery::Database& database) {
  if (isTrue(database, systemPath, "critical") || isTrue(database, systemPath, "brokenInvariant")) {
    return "CRITICAL, writes are refused: " + textOf(database, systemPath, "criticalReason");
  }
  const std::string restoring = textOf(database, agentPath, "restoring");
  if (!restoring.empty()) return "RESTORING " + restoring;
  if (!isTrue(database, agentPath, "serverListens")) return "the server does not listen";
  return fmt::format("{} on {}; {}",
                     isTrue(database, agentPath, "serverReady") ? "serves" : "waits for a pipeline",
                     textOf(database, agentPath, "serverAddress"), programmersText(database));
}

ServiceNotices::ServiceNotices(Vela::ReactorLoop& loop, const Orrery::Database& database)
    : database_(database) {
  if (!manager_.isPresent()) return;
  statusTimer_ = std::make_unique<Vela::Timer>(loop, [this] { tell(); });
  statusTimer_->start(statusPeriod, statusPeriod);
  const auto period = manager_.alivePeriod();
  if (!period) return;
  aliveTimer_ = std::make_unique<Vela::Timer>(loop, [this] { manager_.alive(); });
  aliveTimer_->start(std::chrono::milliseconds(0), *period);
}

void ServiceNotices::tell() {
  manager_.statusIs(serviceStatus(database_));
  if (isReady_ || !serves(database_)) return;
  isReady_ = manager_.ready();
}
