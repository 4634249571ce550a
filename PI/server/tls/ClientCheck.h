// Refuses calls of clients whose certificates were good enough for the handshake, and no more.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "PI/server/tls/LiveCertificates.h"

struct grpc_auth_context;

namespace pi::server {

// Thread-safe. Remembers its verdicts until the certificates in force change, so that a call costs
// a look-up.
class ClientCheck {
 public:
  explicit ClientCheck(std::shared_ptr<LiveCertificates> certificates)
      : certificates_(std::move(certificates)) {}

  // Why the client is not to be served; empty when it is.
  std::string objection(const grpc_auth_context& context);

 private:
  struct Client {  // PEM
    std::string_view certificate;
    std::string_view chain;
  };
  static std::string judge(const grpc_auth_context& context, const Client& client,
                           const CheckedCertificates& certificates);

  const std::shared_ptr<LiveCertificates> certificates_;
  std::mutex mutex_;  // guards the members below
  uint64_t generation_ = 0;
  std::unordered_map<std::string, std::string> verdicts_;  // by certificate and its chain
};

}  // namespace pi::server
