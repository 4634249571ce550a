// The HTTP server of the monitoring, which no client can keep busy for long.
#pragma once

#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>

#include "P4Runtime/monitoring/PeerShares.h"

namespace pi {
class ServerTls;
}

namespace P4Runtime {

// A request has `patience` from the wait for it to the last byte of its response; a connection's
// first one, the handshake included. After that time from its begin a connection gets no further
// request. With TLS the connections of a peer's address have a share. A request for ranges gets the
// whole.
class HttpServer final : public httplib::Server {
 public:
  HttpServer(pi::ServerTls* tls, std::chrono::milliseconds patience);  // null: plain

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const;
  };

  bool process_and_close_socket(socket_t socket) override;
  void serve(int socket);
  void serveRequests(int socket, SSL* tls);

  const std::chrono::milliseconds patience_;
  std::unique_ptr<SSL_CTX, FreeContext> context_;
  PeerShares shares_;
};

}  // namespace P4Runtime
