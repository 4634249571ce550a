// Who a client is, by the names in its certificate.
#pragma once

#include <string>
#include <vector>

namespace pi::server {

struct PeerNames {
  std::vector<std::string> uris;
  std::vector<std::string> dns;
  std::vector<std::string> common;
};

// The URI, else the first DNS name, else the common name; empty without any name.
std::string identityOf(const PeerNames& names);

// Why a client of these names cannot be told from others; empty when it can. Two URIs would let
// one certificate be two clients.
std::string objectionTo(const PeerNames& names);

}  // namespace pi::server
