// The properties that gRPC notes of a connection's other end.
#pragma once

#include <grpc/grpc_security.h>

#include <string>
#include <string_view>
#include <vector>

#include "PI/server/tls/PeerNames.h"

namespace pi::server {

// All values of the property; empty also for a connection that has no context.
std::vector<std::string> propertiesOf(const grpc_auth_context* context, const char* name);
// The first one, which lives as long as the context; empty without any.
std::string_view propertyOf(const grpc_auth_context* context, const char* name);

PeerNames peerNamesOf(const grpc_auth_context* context);

}  // namespace pi::server
