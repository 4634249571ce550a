// What other servers of the process share with the P4Runtime gRPC server: TLS with the same checks
// of clients, the policy, and the accountant. Any thread.
#pragma once

#include <memory>
#include <string>

#include "PI/proto/pi_server_security.h"

struct ssl_ctx_st;  // SSL_CTX
struct ssl_st;      // SSL

namespace pi {

// TLS 1.2 and later, without resumption of sessions; clients must have a certificate that client_ca
// has signed. Each handshake reads the files again, and the former ones go on where new ones do not
// fit together.
class ServerTls {
 public:
  // Throws std::runtime_error with a line that names a file that cannot be used.
  static std::unique_ptr<ServerTls> make(const PIGrpcServerCertificates_t& certificates);
  virtual ~ServerTls() = default;

  // Sets up a new context of OpenSSL, which this object must outlive.
  virtual void setUp(ssl_ctx_st& context) = 0;

  // The client at the other end of a connection of that context.
  struct Client {
    std::string identity;
    std::string objection;  // why it is not to be served; empty: it is
  };
  virtual Client client(const ssl_st& connection) const = 0;
};

// Whether the policy in force lets the identity make a call of this path, a request of HTTP
// included. True without a policy.
bool policyAllowsCall(const std::string& identity, const std::string& path);

// A client or request that another server refused.
struct Refusal {
  const char* what;      // "monitoring"; a literal
  std::string identity;  // of the client; empty where it is not known
  std::string address;
  std::string detail;  // "/metrics"
  int code;            // of gRPC
  std::string reason;
};
// Tells the accountant of pi_server_account.h, where there is one.
void accountRefusal(const Refusal& refusal);

}  // namespace pi
