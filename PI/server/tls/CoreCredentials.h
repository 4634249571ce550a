// Server credentials made of those of gRPC's C core, which can do more than its C++ ones show.
#pragma once

#include <grpc/grpc_security.h>
#include <grpcpp/security/server_credentials.h>

#include <functional>
#include <memory>
#include <string>

namespace pi::server {

// Looks at each call before it is served, on a thread of gRPC's. Returns why it is not to be,
// which makes it fail with UNAUTHENTICATED; else an empty text. May add properties to the context.
using CallCheck = std::function<std::string(grpc_auth_context& context)>;

// Owns `credentials`.
std::shared_ptr<grpc::ServerCredentials> coreCredentials(grpc_server_credentials* credentials,
                                                         CallCheck check);

}  // namespace pi::server
