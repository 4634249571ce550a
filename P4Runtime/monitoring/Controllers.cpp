#include "P4Runtime/monitoring/Controllers.h"

#include <fmt/format.h>

#include <string>
#include <vector>

#include "PI/proto/pi_server_controllers.h"
#include "platform/vela/Json.h"

namespace P4Runtime {
namespace {

constexpr size_t mostShown = 100;
constexpr size_t mostRoles = 1100;  // as many as there are unless their limit is raised

std::string electionIdText(const PIGrpcServerController_t& one) {
  if (!one.has_election_id) return "";
  if (one.election_id_high == 0) return std::to_string(one.election_id_low);
  return fmt::format("{}:{}", one.election_id_high, one.election_id_low);
}

void addController(const PIGrpcServerController_t& one, cJSON* to) {
  cJSON* shown = Vela::addObjectTo(to);
  Vela::addString(shown, "identity", one.identity);
  Vela::addString(shown, "address", one.address);
  Vela::addString(shown, "role", {one.role, one.role_size});
  Vela::addString(shown, "electionId", electionIdText(one));
  cJSON_AddBoolToObject(shown, "primary", one.is_primary);
  Vela::addNumber(shown, "opened", static_cast<double>(one.opened));
  if (one.is_primary) Vela::addNumber(shown, "primarySince", static_cast<double>(one.primary));
}

struct Role {
  std::string name;
  uint64_t streams = 0;
  bool hasPrimary = false;
};

}  // namespace

void addControllers(cJSON* status) {
  const auto tell = [](const PIGrpcServerController_t* one, void* to) {
    addController(*one, static_cast<cJSON*>(to));
  };
  const size_t all =
      PIGrpcServerControllers(mostShown, tell, Vela::addArray(status, "controllers"));
  Vela::addNumber(status, "controllersInAll", static_cast<double>(all));
}

void writeRoles(Exposition& to) {
  std::vector<Role> roles;
  const auto tell = [](const PIGrpcServerRole_t* one, void* all) {
    static_cast<std::vector<Role>*>(all)->push_back(
        {std::string(one->role, one->role_size), one->streams, one->has_primary != 0});
  };
  const size_t all = PIGrpcServerRoles(mostRoles, tell, &roles);
  to.gauge("korvel_roles", "Roles with streams, or with a highest election id.");
  to.sample(uint64_t{all});
  to.gauge("korvel_role_streams", "Streams of controllers by role; the default role has no name.");
  for (const Role& role : roles) to.sample(role.streams, {{"role", role.name}});
  to.gauge("korvel_role_has_primary", "Whether a role has a primary.");
  for (const Role& role : roles) to.sample(uint64_t{role.hasPrimary}, {{"role", role.name}});
}

}  // namespace P4Runtime
