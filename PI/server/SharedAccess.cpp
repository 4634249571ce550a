#include "PI/proto/pi_server_shared.h"
#include "PI/server/PolicyInForce.h"
#include "PI/server/tls/OpensslServer.h"
#include "access/Policy.h"

namespace pi {
namespace {

std::string text(const char* given) { return given ? given : ""; }

class OpensslTls final : public ServerTls {
 public:
  explicit OpensslTls(const PIGrpcServerCertificates_t& files)
      : certificates_(std::make_shared<server::LiveCertificates>(
            server::CertificatePaths{.certificate = text(files.certificate),
                                     .key = text(files.key),
                                     .clientCa = text(files.client_ca),
                                     .crl = text(files.crl)})) {}

  void setUp(SSL_CTX& context) override { server::serveTls(context, *certificates_); }
  Client client(const SSL& connection) const override {
    const server::TlsClient client = server::tlsClientOf(connection, *certificates_);
    return {client.identity, client.objection};
  }

 private:
  const std::shared_ptr<server::LiveCertificates> certificates_;
};

}  // namespace

std::unique_ptr<ServerTls> ServerTls::make(const PIGrpcServerCertificates_t& certificates) {
  return std::make_unique<OpensslTls>(certificates);
}

bool policyAllowsCall(const std::string& identity, const std::string& path) {
  const auto policy = server::policyInForce();
  return !policy || policy->allows({Access::Question::Kind::call, identity, path});
}

}  // namespace pi
