// The other end of a call: how it reached the server, and who it has proved to be.
#pragma once

#include <string>

namespace grpc {
class ServerContext;
}

namespace pi::server {

struct Peer {
  enum class Way {
    ownProcess,  // the process that runs the server, with the local token
    unixSocket,
    plain,  // TCP without TLS: nothing is known of the peer
    tls,    // with a client certificate that the server has verified
  };
  Way way = Way::plain;
  // tls: the certificate's URI, else its first DNS name, else its common name; unixSocket:
  // "unix:UID" of the peer's process; else empty.
  std::string identity;
  std::string address;  // as gRPC writes it: "ipv4:192.0.2.1:40000"
};

// PEM; empty but for Peer::Way::tls.
struct PeerCertificate {
  std::string certificate;
  std::string chain;  // the certificates above it; empty for a session that was resumed
};

// Costs some copies of texts: ask once a call, or once a stream. Any thread.
Peer peerOf(const grpc::ServerContext& context);
PeerCertificate peerCertificateOf(const grpc::ServerContext& context);

}  // namespace pi::server
