#include "PI/server/tls/PeerNames.h"

#include <algorithm>

namespace pi::server {
namespace {

constexpr size_t kMostBytes = 512;

bool isPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

}  // namespace

std::string identityOf(const PeerNames& names) {
  for (const auto* kind : {&names.uris, &names.dns, &names.common}) {
    if (!kind->empty()) return kind->front();
  }
  return "";
}

std::string objectionTo(const PeerNames& names) {
  const std::string identity = identityOf(names);
  if (names.uris.size() > 1) {
    return "the client's certificate has " + std::to_string(names.uris.size()) +
           " URI names; use one with a single URI";
  }
  if (identity.empty()) {
    return "the client's certificate names nobody; use one with a URI, a DNS name or a common name";
  }
  if (identity.starts_with("unix:")) {
    return "the name in the client's certificate stands for a user on the Unix socket; use another "
           "name";
  }
  if (identity.size() > kMostBytes || !isPlain(identity)) {
    return "the name in the client's certificate has blanks or other characters than printable "
           "ASCII, or more than " +
           std::to_string(kMostBytes) + " of them; use another name";
  }
  return "";
}

}  // namespace pi::server
