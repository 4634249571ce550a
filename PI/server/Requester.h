// The role and election id that a request names.
#pragma once

#include <optional>
#include <string>

#include "PI/server/Arbitration.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::server {

template <typename Message>
std::optional<ElectionId> electionIdOf(const Message& message) {
  if (!message.has_election_id()) return std::nullopt;
  return ElectionId{.high = message.election_id().high(), .low = message.election_id().low()};
}

// Clients of former API versions give a number, which names a role of its own, never the default.
inline std::string roleName(const std::string& name, uint64_t formerId) {
  return name.empty() && formerId != 0 ? std::to_string(formerId) : name;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
template <typename Request>
RoleOfDevice roleOf(const Request& request) {
  return {request.device_id(), roleName(request.role(), request.role_id())};
}

inline RoleOfDevice roleOf(const p4::v1::MasterArbitrationUpdate& update) {
  return {update.device_id(), roleName(update.role().name(), update.role().id())};
}
#pragma GCC diagnostic pop

}  // namespace pi::server
