#include "PI/server/Peer.h"

#include <grpcpp/server_context.h>

#include <string_view>

#include "PI/proto/pi_server.h"
#include "PI/server/LocalToken.h"

namespace pi::server {
namespace {

bool hasLocalToken(const grpc::ServerContext& context) {
  const auto& metadata = context.client_metadata();
  const auto found = metadata.find(PIGrpcServerLocalTokenKey());
  if (found == metadata.end()) return false;
  return equalInConstantTime({found->second.data(), found->second.size()},
                             PIGrpcServerLocalToken());
}

}  // namespace

Peer peerOf(const grpc::ServerContext& context) {
  Peer peer;
  if (hasLocalToken(context)) peer.way = Peer::Way::ownProcess;
  peer.address = context.peer();
  return peer;
}

}  // namespace pi::server
