#include "cli/switch/AgentConfiguration.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "platform/vela/Json.h"

namespace {

cJSON* pathIn(const Vela::Json& configuration, const std::string& path) {
  return cJSON_AddObjectToObject(configuration.get(), path.c_str());
}

void addSystem(const Vela::Json& configuration, const SwitchOptions& options) {
  cJSON* system = pathIn(configuration, "p4runtime/config/system");
  Vela::addNumber(system, "deviceId", options.deviceId);
  Vela::addString(system, "grpcServerAddress", options.server.host);
  Vela::addNumber(system, "grpcServerPort", options.server.port);
  cJSON_AddBoolToObject(system, "bothCounts", true);
}

void addSecurity(const Vela::Json& configuration, const SwitchOptions& options) {
  cJSON* security = pathIn(configuration, "p4runtime/config/security");
  cJSON_AddBoolToObject(security, "insecure", options.insecure);
  Vela::addString(security, "certificate", options.files.certificate);
  Vela::addString(security, "key", options.files.key);
  Vela::addString(security, "clientCa", options.files.clientCa);
  Vela::addString(security, "crl", options.files.crl);
}

void addAgent(const Vela::Json& configuration, const SwitchOptions& options,
              const std::string& stateDirectory) {
  cJSON* agent = pathIn(configuration, "p4runtime/config/agent");
  Vela::addString(agent, "p4InfoJsonPath", stateDirectory + "/p4info.json");
  Vela::addString(agent, "deviceJsonPath", stateDirectory + "/device.json");
  Vela::addString(agent, "cpuDevice", cpuDeviceOf(options));
  cJSON_AddBoolToObject(agent, "packetOutToProgram", true);
  cJSON_AddBoolToObject(agent, "checkPrograms", true);
}

}  // namespace

std::string cpuDeviceOf(const SwitchOptions& options) {
  return fmt::format("korvel-cpu{}", options.server.port);
}

std::string agentConfiguration(const SwitchOptions& options, const std::string& stateDirectory,
                               const std::map<uint32_t, std::string>& ports) {
  const Vela::Json configuration(cJSON_CreateObject());
  addSystem(configuration, options);
  addSecurity(configuration, options);
  addAgent(configuration, options, stateDirectory);
  for (const auto& [port, interface] : ports) {
    cJSON* mapping = pathIn(configuration, fmt::format("p4runtime/config/port-mapping/{}", port));
    Vela::addString(mapping, "intf", interface);
  }
  return Vela::jsonBytes(*configuration) + "\n";
}

void writeWholeFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".next";
  std::ofstream file(next, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (file && std::rename(next.c_str(), path.c_str()) == 0) return;
  throw std::system_error(errno ? errno : EIO, std::generic_category(), "cannot write " + path);
}
