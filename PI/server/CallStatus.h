// Where a call's faults end: no exception gets past it.
#pragma once

#include <grpcpp/support/status.h>

#include <exception>
#include <string>

namespace pi::server {

// What serve() answers, or INTERNAL with the words of the exception that it throws.
template <typename Serve>
grpc::Status answered(Serve serve) {
  try {
    return serve();
  } catch (const std::exception& e) {
    return grpc::Status(grpc::StatusCode::INTERNAL,
                        std::string("the switch failed to serve this: ") + e.what());
  }
}

}  // namespace pi::server
