#include "PI/server/tls/AuthProperties.h"

namespace pi::server {
namespace {

template <typename Take>
void forEach(const grpc_auth_context* context, const char* name, Take take) {
  if (!context) return;
  grpc_auth_property_iterator all = grpc_auth_context_find_properties_by_name(context, name);
  while (const grpc_auth_property* one = grpc_auth_property_iterator_next(&all)) {
    if (!take(std::string_view(one->value, one->value_length))) return;
  }
}

}  // namespace

std::vector<std::string> propertiesOf(const grpc_auth_context* context, const char* name) {
  std::vector<std::string> values;
  forEach(context, name, [&](std::string_view value) {
    values.emplace_back(value);
    return true;
  });
  return values;
}

std::string_view propertyOf(const grpc_auth_context* context, const char* name) {
  std::string_view first;
  forEach(context, name, [&](std::string_view value) {
    first = value;
    return false;
  });
  return first;
}

PeerNames peerNamesOf(const grpc_auth_context* context) {
  return {.uris = propertiesOf(context, GRPC_PEER_URI_PROPERTY_NAME),
          .dns = propertiesOf(context, GRPC_PEER_DNS_PROPERTY_NAME),
          .common = propertiesOf(context, GRPC_X509_CN_PROPERTY_NAME)};
}

}  // namespace pi::server
