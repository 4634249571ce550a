// The configuration and status of the agent's monitoring.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/config/monitoring". Call with the activity lock held.
class MonitoringConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::MonitoringConfig"; }

  // "127.0.0.1:9464": where metrics and the page are served by HTTP; by HTTPS on addresses that
  // other machines reach. Empty: nowhere.
  VELA_ATTRIBUTE(std::string, address, "")
};

// At "p4runtime/status/monitoring". Its operation "show" returns the agent's status as JSON.
class MonitoringStatus final : public Vela::Entity {
 public:
  MonitoringStatus(const std::string& name, std::function<std::string()> show) : Entity(name) {
    operationIs({"show", {}, [show = std::move(show)](const auto&) { return show(); }});
  }
  const char* typeName() const override { return "P4Runtime::MonitoringStatus"; }

  VELA_READONLY_ATTRIBUTE(std::string, address, "")   // that is served; "": none
  VELA_READONLY_ATTRIBUTE(std::string, security, "")  // of that address, for people
  VELA_READONLY_ATTRIBUTE(std::string, trouble, "")   // why not
};

}  // namespace P4Runtime
