// What a role may do, as its primary's arbitration update says. The server knows one form of it,
// the message "stratum.P4RoleConfig" of public controllers.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

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

  bool takes(const p4::v1::PacketIn& packet) const;
};

// INVALID_ARGUMENT for another form, for a damaged one, and for one that keeps objects to the role,
// which the server cannot do.
grpc::Status roleConfigOf(const google::protobuf::Any& given,
                          std::shared_ptr<const RoleConfig>* config);

}  // namespace pi::server
