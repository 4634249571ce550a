// The controllers and roles that the arbitration knows, for people and for monitoring.
#include <chrono>

#include "PI/proto/pi_server_controllers.h"
#include "PI/server/Arbitration.h"

namespace pi::server {

Arbitration::ControllerViews Arbitration::controllers(size_t most) const {
  const std::lock_guard lock(mutex_);
  ControllerViews views{{}, contestOf_.size()};
  const auto add = [&](const RoleOfDevice& role, const Contest& contest,
                       const ArbitrationClient& client, std::optional<ElectionId> electionId) {
    ControllerView view{role, client.identity(), client.origin(), electionId, std::nullopt};
    if (contest.primary == &client) view.primarySince = contest.primarySince;
    views.controllers.push_back(std::move(view));
  };
  for (const auto& [role, contest] : contests_) {
    if (views.controllers.size() == most) return views;
    if (contest.primary) add(role, contest, *contest.primary, contest.highest);
  }
  for (const auto& [role, contest] : contests_) {
    for (const auto& [client, electionId] : contest.clients) {
      if (views.controllers.size() == most) return views;
      if (client != contest.primary) add(role, contest, *client, electionId);
    }
  }
  return views;
}

Arbitration::RoleViews Arbitration::roles(size_t most) const {
  const std::lock_guard lock(mutex_);
  RoleViews views;
  for (const auto& [role, contest] : contests_) {
    if (contest.clients.empty() && !contest.highest) continue;
    ++views.all;
    if (views.roles.size() == most) continue;
    views.roles.push_back({role, contest.clients.size(), contest.primary != nullptr});
  }
  return views;
}

}  // namespace pi::server

namespace {

int64_t secondsOf(pi::server::WallTime time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace

size_t PIGrpcServerControllers(size_t most, void (*tell)(const PIGrpcServerController_t*, void*),
                               void* cookie) {
  const auto views = pi::server::TheArbitration().controllers(most);
  for (const auto& one : views.controllers) {
    const auto electionId = one.electionId.value_or(pi::server::ElectionId());
    const PIGrpcServerController_t told{
        .identity = one.identity.c_str(),
        .address = one.origin.address.c_str(),
        .device_id = one.role.deviceId,
        .role = one.role.role.data(),
        .role_size = one.role.role.size(),
        .has_election_id = one.electionId.has_value(),
        .election_id_high = electionId.high,
        .election_id_low = electionId.low,
        .is_primary = one.primarySince.has_value(),
        .opened = secondsOf(one.origin.opened),
        .primary = one.primarySince ? secondsOf(*one.primarySince) : 0};
    tell(&told, cookie);
  }
  return views.all;
}

size_t PIGrpcServerRoles(size_t most, void (*tell)(const PIGrpcServerRole_t*, void*),
                         void* cookie) {
  const auto views = pi::server::TheArbitration().roles(most);
  for (const auto& one : views.roles) {
    const PIGrpcServerRole_t told{.device_id = one.role.deviceId,
                                  .role = one.role.role.data(),
                                  .role_size = one.role.role.size(),
                                  .streams = one.clients,
                                  .has_primary = one.hasPrimary};
    tell(&told, cookie);
  }
  return views.all;
}
