// The last catch of a call: no exception leaves it.
#pragma once

#include <grpcpp/support/status.h>

#include <exception>
#include <string>

namespace pi::server {

// The status that serve() returns, or INTERNAL with the text of the exception that it throws.
template <typename Serve>
grpc::Status statusOf(Serve serve) {
  try {
    return serve();
  } catch (const std::exception& e) {
    return grpc::Status(grpc::StatusCode::INTERNAL,
                        std::string("the switch failed to serve this: ") + e.what());
  }
}

}  // namespace pi::server
