// The certificates that have been revoked before their time.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "PI/server/tls/Openssl.h"

namespace pi::server {

// Constant after construction; any thread.
class Revocations {
 public:
  Revocations() = default;
  explicit Revocations(std::vector<CrlPtr> lists) : lists_(std::move(lists)) {}

  bool empty() const { return lists_.empty(); }
  // Why the peer with this certificate, and these certificates above it (both PEM), is not to be
  // served; empty when nothing is held against it.
  std::string objection(std::string_view certificate, std::string_view chain) const;

 private:
  bool isRevoked(X509& certificate) const;
  bool hasListOf(const X509_NAME* issuer) const;

  std::vector<CrlPtr> lists_;
};

}  // namespace pi::server
