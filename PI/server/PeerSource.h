// Who the server takes a caller for.
#pragma once

#include <functional>

#include "PI/server/Peer.h"

namespace pi::server {

// peerOf(), unless a test tells otherwise.
Peer peerOfCall(const grpc::ServerContext& context);

// For tests, before their server starts; null: peerOf().
void peerSourceIs(std::function<Peer(const grpc::ServerContext&)> source);

}  // namespace pi::server
