#include "P4Runtime/agent/CliCommands.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "P4Runtime/agent/PortMappingDirSm.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/PortMapping.h"
#include "platform/orrery/Requests.h"

namespace P4Runtime {
namespace {

using Orrery::Database;
using P4RuntimeConfig::P4RtSystemConfig;
using P4RuntimeConfig::portFromText;
using P4RuntimeConfig::PortMappingConfig;
using P4RuntimeConfig::PortMappingStatus;
using Arguments = std::vector<std::string>;

constexpr const char* mappingPath = "p4runtime/config/port-mapping";
constexpr const char* mappingStatusPath = "p4runtime/status/port-mapping";
constexpr size_t anyNumber = 1000;

template <typename T>
Vela::Ptr<T> entityAt(const Database& database, const std::string& path) {
  const auto entity = database.entity(path);
  auto* typed = dynamic_cast<T*>(entity.get());
  if (!typed) throw std::runtime_error("there is no " + path + " in the state database");
  return Vela::Ptr<T>(typed);
}

template <typename... Texts>
[[noreturn]] void refuse(fmt::format_string<Texts...> format, Texts&&... texts) {
  throw std::runtime_error(fmt::format(format, std::forward<Texts>(texts)...));
}

std::string portPath(const std::string& port) { return fmt::format("{}/{}", mappingPath, port); }

void requirePort(const std::string& port) {
  if (portFromText(port)) return;
  refuse("'{}' is no P4 port id; write a number from 0 to 4294967295", port.substr(0, 80));
}

// Checks before it sets: undoing a refused mapping would come too late once another port has taken
// the old interface.
std::string mapPort(Database& database, const std::string& port, const std::string& intf) {
  requirePort(port);
  const auto status = entityAt<PortMappingStatus>(database, mappingStatusPath);
  const auto agent = entityAt<AgentConfig>(database, "p4runtime/config/agent");
  const Vela::Outcome fit = checkIntfName(intf, agent->cpuDevice().text());
  if (!fit.ok()) throw std::runtime_error(fit.reason());
  if (status->portOfIntfHas(intf) && status->portOfIntf(intf) != portFromText(port)) {
    throw std::runtime_error(intfHeldBy(intf, status->portOfIntf(intf)));
  }
  if (database.entity(portPath(port))) {
    entityAt<PortMappingConfig>(database, portPath(port))->intfIs(intf);
  } else {
    const auto config = Vela::make<PortMappingConfig>(port);
    config->intfIs(intf);
    database.entityIs(portPath(port), config);
  }
  return fmt::format("port {} is interface {}", port, intf);
}

std::string unmapPort(Database& database, const std::string& port) {
  requirePort(port);
  if (!database.entityDel(portPath(port))) {
    refuse("port {} is not mapped; 'korvel port list' shows those that are", port);
  }
  return fmt::format("port {} is not mapped any more", port);
}

std::string enable(Database& database) {
  const auto config = entityAt<P4RtSystemConfig>(database, "p4runtime/config/system");
  if (config->enabled()) return "the agent is enabled already";
  config->enabledIs(true);
  return "the agent is enabled";
}

std::string disable(Database& database) {
  const auto config = entityAt<P4RtSystemConfig>(database, "p4runtime/config/system");
  if (!config->enabled()) {
    return "the agent is disabled already, or is about to be; 'korvel status' says what it waits "
           "for";
  }
  config->enabledIs(false);
  return "the agent cleans up and ends; 'korvel status' says what it waits for";
}

std::string requestStop(Database& database) {
  entityAt<AgentConfig>(database, "p4runtime/config/agent")->exitRequestedIs(true);
  return "the agent ends";
}

std::string answerText(Database& database, const Vela::Json& request) {
  const Vela::Json answer = Orrery::answerRequest(database, *request);
  const char* text = Vela::stringMember(*answer, "answer");
  return text ? text : "";
}

Orrery::Attributes parsedSettings(const Arguments& arguments) {
  Orrery::Attributes settings;
  for (size_t i = 1; i < arguments.size(); ++i) {
    const size_t sign = arguments[i].find('=');
    if (sign == std::string::npos) {
      refuse("'{}' is no setting; write ATTRIBUTE=VALUE", arguments[i].substr(0, 80));
    }
    settings.emplace_back(arguments[i].substr(0, sign), arguments[i].substr(sign + 1));
  }
  return settings;
}

}  // namespace

CliCommands cliCommands(Database& database) {
  Database* db = &database;
  return {
      {"port map",
       {"port map PORT INTERFACE", 2, 2,
        [db](const Arguments& a) { return mapPort(*db, a[0], a[1]); }}},
      {"port unmap",
       {"port unmap PORT", 1, 1, [db](const Arguments& a) { return unmapPort(*db, a[0]); }}},
      {"enable", {"enable", 0, 0, [db](const Arguments&) { return enable(*db); }}},
      {"disable", {"disable", 0, 0, [db](const Arguments&) { return disable(*db); }}},
      {"stop", {"stop", 0, 0, [db](const Arguments&) { return requestStop(*db); }}},
      {"set",
       {"set PATH ATTRIBUTE VALUE", 3, 3,
        [db](const Arguments& a) {
          return answerText(*db, Orrery::setRequest(a[0], a[1], a[2]));
        }}},
      {"create",
       {"create PATH [ATTRIBUTE=VALUE ...]", 1, anyNumber,
        [db](const Arguments& a) {
          return answerText(*db, Orrery::createRequest(a[0], parsedSettings(a)));
        }}},
      {"delete",
       {"delete PATH", 1, 1,
        [db](const Arguments& a) { return answerText(*db, Orrery::deleteRequest(a[0])); }}},
      {"call",
       {"call PATH OPERATION [ARGUMENTS ...]", 2, anyNumber,
        [db](const Arguments& a) {
          return answerText(*db,
                            Orrery::callRequest(a[0], a[1], Arguments(a.begin() + 2, a.end())));
        }}},
  };
}

}  // namespace P4Runtime
