// gRPC's server credentials for TLS with client certificates, both of which may change at any time.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace grpc {
class ServerCredentials;
}

namespace pi::server {

class LiveCertificates;

// Hears of a call that was refused; on a thread of gRPC's.
using RefusalHandler = std::function<void(const std::string& identity, const std::string& reason)>;

// Each handshake reads the files first. TLS 1.2 and later; clients must have a certificate that
// clientCa has signed. A call is refused with UNAUTHENTICATED, also on a connection that is open,
// when the certificate has been revoked, or names nobody in particular.
std::shared_ptr<grpc::ServerCredentials> tlsCredentials(
    std::shared_ptr<LiveCertificates> certificates, RefusalHandler handler = nullptr);

}  // namespace pi::server
