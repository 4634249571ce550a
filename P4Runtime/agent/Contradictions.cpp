#include "P4Runtime/agent/Contradictions.h"

#include <fmt/format.h>

#include <map>

#include "P4Runtime/agent/ServerSecurity.h"
#include "P4Runtime/companion/PortMapping.h"
#include "P4Runtime/companion/Translation.h"
#include "P4Runtime/monitoring/MonitoringConfig.h"
#include "P4Runtime/monitoring/MonitoringServer.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

using namespace P4RuntimeConfig;

class Search {
 public:
  explicit Search(const Orrery::Database& database) : database_(database) {}

  void security() try {
    const auto system = at<P4RtSystemConfig>("p4runtime/config/system");
    const auto security = at<SecurityConfig>("p4runtime/config/security");
    if (system && security) securityOnAnyMachine(*system, *security);
  } catch (const Vela::Exception& e) {
    lines.emplace_back(e.what());
  }

  void monitoring() {
    const auto config = at<MonitoringConfig>("p4runtime/config/monitoring");
    const auto security = at<SecurityConfig>("p4runtime/config/security");
    if (!config || !security || config->address().empty()) return;
    const bool hasCertificates = !security->certificate().empty();
    const std::string fault = monitoringAddressFault(config->address(), hasCertificates);
    if (!fault.empty()) lines.push_back("p4runtime/config/monitoring: " + fault);
  }

  void ports() {
    std::map<std::string, std::string> portOf;
    const std::string directory = "p4runtime/config/port-mapping";
    for (const std::string& port : database_.children(directory)) {
      const auto config = at<PortMappingConfig>(directory + "/" + port);
      if (!config || config->intf().empty()) continue;
      const auto [other, isNew] = portOf.try_emplace(config->intf(), port);
      if (isNew) continue;
      lines.push_back(
          fmt::format("{}/{}: {} is the interface of port {} already; an interface "
                      "has one port",
                      directory, port, config->intf(), other->second));
    }
  }

  void names() {
    const std::string directory = "p4runtime/config/translation";
    for (const std::string& type : database_.children(directory)) {
      const auto config = at<TranslationConfig>(directory + "/" + type);
      if (!config) continue;
      for (const FixedName& name : fixedNames(config->names())) {
        if (name.fault.empty()) continue;
        lines.push_back(fmt::format("{}/{}: \"{}\": {}", directory, type, name.word, name.fault));
      }
    }
  }

  std::vector<std::string> lines;

 private:
  template <typename T>
  Vela::Ptr<const T> at(const std::string& path) const {
    return Vela::Ptr<const T>(dynamic_cast<const T*>(database_.entity(path).get()));
  }

  const Orrery::Database& database_;
};

}  // namespace

std::vector<std::string> contradictions(const Orrery::Database& database) {
  Search search(database);
  search.security();
  search.monitoring();
  search.ports();
  search.names();
  return search.lines;
}

}  // namespace P4Runtime

void korvelAgentContradictions(const Orrery::Database& database, std::vector<std::string>& lines) {
  for (std::string& line : P4Runtime::contradictions(database)) lines.push_back(std::move(line));
}
