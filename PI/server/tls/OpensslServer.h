// TLS with client certificates for servers that use OpenSSL themselves.
#pragma once

#include <openssl/ssl.h>

#include <string>

#include "PI/server/tls/LiveCertificates.h"

namespace pi::server {

// Sets a new context up: TLS 1.2 and later, no resumption, and at each handshake the certificates
// as their files have them then. `certificates` outlives the context.
void serveTls(SSL_CTX& context, LiveCertificates& certificates);

struct TlsClient {
  std::string identity;
  std::string objection;  // why it is not to be served, for it has been revoked, or has no fit name
};
// Of a connection whose handshake is done, by the files as they are now. Any thread.
TlsClient tlsClientOf(const SSL& connection, LiveCertificates& certificates);

}  // namespace pi::server
