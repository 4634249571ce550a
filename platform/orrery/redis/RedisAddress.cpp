#include "platform/orrery/redis/RedisAddress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>

#include "platform/vela/PlainText.h"

namespace Orrery {
namespace {

constexpr size_t longestPrefix = 200;  // bytes
constexpr unsigned mostDatabase = 65535;
constexpr const char* form =
    "write redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE][?prefix=TEXT] or "
    "unix:/PATH[?prefix=TEXT]";

// Text that goes into a message may stand before an "@" of a password that was written without
// %40: only what the caller knows to be no part of one is quoted.
[[noreturn]] void refuse(const std::string& trouble) {
  throw AddressError(fmt::format("the address of the state database {}; {}", trouble, form));
}

std::optional<unsigned> number(std::string_view text, unsigned most) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > most) return std::nullopt;
  return value;
}

std::string decoded(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      bytes += text[i];
      continue;
    }
    unsigned byte = 0;
    const std::string_view digits = text.substr(i + 1, 2);
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) {
      refuse("has a % without two hexadecimal digits behind it");
    }
    bytes += static_cast<char>(byte);
    i += 2;
  }
  return bytes;
}

// Cuts the text at the first `mark`; returns the part behind it, or nothing.
std::optional<std::string_view> cut(std::string_view& text, char mark) {
  const size_t at = text.find(mark);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view behind = text.substr(at + 1);
  text = text.substr(0, at);
  return behind;
}

std::string hostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

void takeUser(RedisAddress& address, std::string_view text) {
  const auto password = cut(text, ':');
  if (!password) refuse("has an @ without a password before it, which a colon begins");
  address.user = decoded(text);
  address.password = decoded(*password);
}

// Takes "[USER]:PASSWORD@" off the front.
void maybeTakeUser(RedisAddress& address, std::string_view& authority) {
  const size_t at = authority.rfind('@');
  if (at == std::string_view::npos) return;
  takeUser(address, authority.substr(0, at));
  authority = authority.substr(at + 1);
}

void takePort(RedisAddress& address, std::string_view text) {
  const auto port = number(text, UINT16_MAX);
  if (!port || *port == 0) {
    refuse(
        "has no port from 1 to 65535 behind the host's colon, or a ? in a password: write %3F for "
        "? there");
  }
  address.port = static_cast<uint16_t>(*port);
}

void takeHost(RedisAddress& address, std::string_view text) {
  if (text.starts_with('[')) {
    const auto behind = cut(text, ']');
    if (!behind || (!behind->empty() && !behind->starts_with(':'))) {
      refuse("has no ] behind its IPv6 address");
    }
    address.host = text.substr(1);
    if (!behind->empty()) takePort(address, behind->substr(1));
  } else {
    const auto port = cut(text, ':');
    address.host = decoded(text);
    if (port) takePort(address, *port);
  }
  if (address.host.empty()) refuse("names no host");
}

void takeDatabase(RedisAddress& address, std::string_view text) {
  const auto database = number(text, mostDatabase);
  if (!database) refuse("has no database number where it should; databases count from 0");
  address.database = *database;
}

void takeOption(RedisAddress& address, std::string_view text) {
  std::string_view name = text;
  const auto value = cut(name, '=');
  if (!value || value->empty()) refuse("has an option without a value");
  if (name == "prefix") {
    address.prefix = decoded(*value);
  } else if (name == "user") {
    address.user = decoded(*value);
  } else if (name == "password-file") {
    address.passwordFile = decoded(*value);
  } else if (name == "copy") {
    address.copyFile = decoded(*value);
  } else if (name == "db") {
    takeDatabase(address, *value);
  } else {
    refuse(
        "has an option that is none of prefix, user, db, password-file and copy; in a password "
        "write %3F for ? and %26 for &");
  }
}

void takeOptions(RedisAddress& address, std::optional<std::string_view> options) {
  while (options && !options->empty()) {
    std::string_view option = *options;
    options = cut(option, '&');
    takeOption(address, option);
  }
}

void takeServer(RedisAddress& address, std::string_view text) {
  const auto database = cut(text, '/');
  if (database && database->find('@') != std::string_view::npos) {
    refuse("has a slash before its @: write %2F for it in a password");
  }
  maybeTakeUser(address, text);
  takeHost(address, text);
  if (database && !database->empty()) takeDatabase(address, *database);
}

void takeSocket(RedisAddress& address, std::string_view text) {
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const size_t path = text.find('/');
    std::string_view authority = text.substr(0, path);
    maybeTakeUser(address, authority);
    if (!authority.empty() || path == std::string_view::npos) refuse("names no path of a socket");
    text.remove_prefix(path);
  }
  if (!text.starts_with('/')) refuse("names no path of a socket; begin it with a slash");
  address.socketPath = decoded(text);
}

void checkPrefix(RedisAddress& address) {
  std::string& prefix = address.prefix;
  if (prefix.empty()) prefix = "korvel/" + hostName();
  while (prefix.ends_with('/')) prefix.pop_back();
  if (prefix.empty() || !Vela::isPlainLine(prefix, longestPrefix)) {
    refuse(fmt::format("has a prefix that is empty, longer than {} bytes, or no plain text",
                       longestPrefix));
  }
}

}  // namespace

std::string RedisAddress::text() const {
  if (!socketPath.empty()) return fmt::format("unix:{}?db={}", socketPath, database);
  const bool isSix = host.find(':') != std::string::npos;
  return fmt::format(fmt::runtime(isSix ? "redis://[{}]:{}/{}" : "redis://{}:{}/{}"), host, port,
                     database);
}

RedisAddress redisAddressFromText(const std::string& text) {
  RedisAddress address;
  std::string_view rest = text;
  const auto options = cut(rest, '?');
  if (rest.starts_with("redis://")) {
    takeServer(address, rest.substr(8));
  } else if (rest.starts_with("unix:")) {
    takeSocket(address, rest.substr(5));
  } else if (rest.starts_with("rediss://")) {
    refuse("begins with rediss://, and TLS is not spoken; reach it over a tunnel or a Unix socket");
  } else {
    refuse("begins with neither redis:// nor unix:");
  }
  takeOptions(address, options);
  checkPrefix(address);
  return address;
}

std::string redisPassword(const RedisAddress& address) {
  if (!address.password.empty()) return address.password;
  if (address.passwordFile.empty()) {
    const char* password = std::getenv(passwordVariable);
    return password ? password : "";
  }
  errno = 0;
  std::ifstream file(address.passwordFile, std::ios::binary);
  std::string password(std::istreambuf_iterator<char>(file), {});
  if (!file.is_open() || file.bad()) {
    throw AddressError(fmt::format("cannot read the password file {}: {}", address.passwordFile,
                                   strerror(errno ? errno : EIO)));
  }
  while (password.ends_with('\n') || password.ends_with('\r')) password.pop_back();
  return password;
}

}  // namespace Orrery
