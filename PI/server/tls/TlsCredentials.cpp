#include "PI/server/tls/TlsCredentials.h"

#include <grpc/grpc_security.h>

#include <utility>

#include "PI/server/tls/AuthProperties.h"
#include "PI/server/tls/ClientCheck.h"
#include "PI/server/tls/CoreCredentials.h"
#include "PI/server/tls/LiveCertificates.h"

namespace pi::server {
namespace {

// gRPC asks at each handshake, one at a time, and keeps the configuration that it has when it gets
// no other.
class Fetcher {
 public:
  explicit Fetcher(std::shared_ptr<LiveCertificates> certificates)
      : certificates_(std::move(certificates)) {}

  grpc_ssl_certificate_config_reload_status fetch(grpc_ssl_server_certificate_config** config) {
    const auto current = certificates_->refreshed();
    if (current.generation == generation_) return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_UNCHANGED;
    const CertificateBytes& bytes = current.certificates->bytes;
    const grpc_ssl_pem_key_cert_pair own{bytes.key.c_str(), bytes.certificate.c_str()};
    *config = grpc_ssl_server_certificate_config_create(bytes.clientCa.c_str(), &own, 1);
    generation_ = current.generation;
    return GRPC_SSL_CERTIFICATE_CONFIG_RELOAD_NEW;
  }

 private:
  const std::shared_ptr<LiveCertificates> certificates_;
  uint64_t generation_ = 0;  // that gRPC has
};

grpc_ssl_certificate_config_reload_status fetch(void* fetcher,
                                                grpc_ssl_server_certificate_config** config) {
  return static_cast<Fetcher*>(fetcher)->fetch(config);
}

}  // namespace

// The check lives as long as gRPC needs the credentials, and the fetcher with it.
std::shared_ptr<grpc::ServerCredentials> tlsCredentials(
    std::shared_ptr<LiveCertificates> certificates, RefusalHandler handler) {
  const auto fetcher = std::make_shared<Fetcher>(certificates);
  const auto check = std::make_shared<ClientCheck>(std::move(certificates));
  grpc_ssl_server_credentials_options* const options =
      grpc_ssl_server_credentials_create_options_using_config_fetcher(
          GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY, &fetch, fetcher.get());
  return coreCredentials(
      grpc_ssl_server_credentials_create_with_options(options),
      [fetcher, check, handler = std::move(handler)](grpc_auth_context& context) {
        std::string objection = check->objection(context);
        if (handler && !objection.empty()) handler(identityOf(peerNamesOf(&context)), objection);
        return objection;
      });
}

}  // namespace pi::server
