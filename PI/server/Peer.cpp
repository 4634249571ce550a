#include "PI/server/Peer.h"

#include <grpc/grpc_security_constants.h>
#include <grpcpp/server_context.h>

#include <string>
#include <vector>

#include "PI/proto/pi_server.h"
#include "PI/server/LocalToken.h"
#include "PI/server/UnixUsers.h"
#include "PI/server/tls/PeerNames.h"

namespace pi::server {
namespace {

bool hasLocalToken(const grpc::ServerContext& context) {
  const auto& metadata = context.client_metadata();
  const auto found = metadata.find(PIGrpcServerLocalTokenKey());
  if (found == metadata.end()) return false;
  return equalInConstantTime({found->second.data(), found->second.size()},
                             PIGrpcServerLocalToken());
}

std::vector<std::string> valuesOf(const grpc::AuthContext& connection, const char* name) {
  std::vector<std::string> values;
  for (const grpc::string_ref& value : connection.FindPropertyValues(name)) {
    values.emplace_back(value.data(), value.size());
  }
  return values;
}

bool isTls(const grpc::AuthContext& connection) {
  const auto types = valuesOf(connection, GRPC_TRANSPORT_SECURITY_TYPE_PROPERTY_NAME);
  return types == std::vector<std::string>{GRPC_SSL_TRANSPORT_SECURITY_TYPE};
}

std::string firstOf(const grpc::AuthContext& connection, const char* name) {
  const auto values = connection.FindPropertyValues(name);
  return values.empty() ? "" : std::string(values.front().data(), values.front().size());
}

}  // namespace

PeerCertificate peerCertificateOf(const grpc::ServerContext& context) {
  const auto connection = context.auth_context();
  if (!isTls(*connection)) return {};
  return {.certificate = firstOf(*connection, GRPC_X509_PEM_CERT_PROPERTY_NAME),
          .chain = firstOf(*connection, GRPC_X509_PEM_CERT_CHAIN_PROPERTY_NAME)};
}

Peer peerOf(const grpc::ServerContext& context) {
  Peer peer;
  peer.address = context.peer();
  if (hasLocalToken(context)) {
    peer.way = Peer::Way::ownProcess;
    return peer;
  }
  const auto connection = context.auth_context();
  if (valuesOf(*connection, kUnixUserProperty).size() == 1) {
    peer.way = Peer::Way::unixSocket;
    peer.identity = valuesOf(*connection, kUnixUserProperty).front();
  } else if (isTls(*connection)) {
    peer.way = Peer::Way::tls;
    peer.identity = identityOf({.uris = valuesOf(*connection, GRPC_PEER_URI_PROPERTY_NAME),
                                .dns = valuesOf(*connection, GRPC_PEER_DNS_PROPERTY_NAME),
                                .common = valuesOf(*connection, GRPC_X509_CN_PROPERTY_NAME)});
  }
  return peer;
}

}  // namespace pi::server
