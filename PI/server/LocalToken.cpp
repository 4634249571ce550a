#include "PI/server/LocalToken.h"

#include <sys/random.h>

#include <array>
#include <cstdint>

namespace pi::server {

std::string randomToken() {
  std::array<uint8_t, 32> random;
  if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) return "";
  std::string token;
  for (uint8_t byte : random) {
    token += "0123456789abcdef"[byte >> 4];
    token += "0123456789abcdef"[byte & 15];
  }
  return token;
}

bool equalInConstantTime(std::string_view given, std::string_view secret) {
  if (secret.empty() || given.size() != secret.size()) return false;
  unsigned difference = 0;
  for (size_t i = 0; i < secret.size(); ++i) {
    difference |= static_cast<uint8_t>(given[i]) ^ static_cast<uint8_t>(secret[i]);
  }
  return difference == 0;
}

}  // namespace pi::server
