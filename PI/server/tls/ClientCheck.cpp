#include "PI/server/tls/ClientCheck.h"

#include "PI/server/tls/AuthProperties.h"

namespace pi::server {
namespace {

// More than there are connections; clients choose how long their chains are.
constexpr size_t kMostVerdicts = 2048;
constexpr size_t kMostBytes = 16 << 10;

}  // namespace

std::string ClientCheck::objection(const grpc_auth_context& context) {
  const auto current = certificates_->current();
  const Client client{propertyOf(&context, GRPC_X509_PEM_CERT_PROPERTY_NAME),
                      propertyOf(&context, GRPC_X509_PEM_CERT_CHAIN_PROPERTY_NAME)};
  std::string key = std::string(client.certificate) + '\n' + std::string(client.chain);
  if (key.size() > kMostBytes) return judge(context, client, *current.certificates);
  const std::lock_guard lock(mutex_);
  if (generation_ != current.generation || verdicts_.size() > kMostVerdicts) verdicts_.clear();
  generation_ = current.generation;
  const auto [verdict, isNew] = verdicts_.try_emplace(std::move(key));
  if (isNew) verdict->second = judge(context, client, *current.certificates);
  return verdict->second;
}

std::string ClientCheck::judge(const grpc_auth_context& context, const Client& client,
                               const CheckedCertificates& certificates) {
  const std::string objection = objectionTo(peerNamesOf(&context));
  if (!objection.empty()) return objection;
  return certificates.revocations.objection(client.certificate, client.chain);
}

}  // namespace pi::server
