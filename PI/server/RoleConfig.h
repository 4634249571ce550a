// What a role may do, as its primary's arbitration update says. The server knows one form of it,
// the message "stratum.P4RoleConfig" of public controllers.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::server {

struct RoleConfig {
  struct PacketFilter {
    uint32_t metadataId = 0;
    std::string value;  // in the shortest form
  };

  google::protobuf::Any given;  // for notices
  bool receivesPacketIns = false;
  bool canPushPipeline = false;
  std::optional<PacketFilter> packetFilter;  // nothing: all packets
  // Objects of the P4Info, ascending. Without any the role has all that no other role keeps.
  std::vector<uint32_t> exclusiveIds;
  std::vector<uint32_t> sharedIds;
  bool namesObjects() const { return !exclusiveIds.empty() || !sharedIds.empty(); }

  bool takes(const p4::v1::PacketIn& packet) const;
};

inline constexpr size_t kMostRoleIds = 4096;  // of each list

// INVALID_ARGUMENT for another form, for a damaged one, for an id that is both exclusive and
// shared, and for too many ids.
grpc::Status roleConfigOf(const google::protobuf::Any& given,
                          std::shared_ptr<const RoleConfig>* config);

}  // namespace pi::server
