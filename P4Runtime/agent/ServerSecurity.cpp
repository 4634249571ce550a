#include "P4Runtime/agent/ServerSecurity.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <optional>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_security.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;
using P4RuntimeConfig::SecurityConfig;

constexpr const char* harmless = "plain, for this machine alone";

[[noreturn]] void refuse(const std::string& reason) {
  throw Vela::Exception("p4runtime/config/security: " + reason);
}

bool isLoopback(const IpAddress& address) {
  in_addr v4{};
  if (inet_pton(AF_INET, address.text().c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  if (inet_pton(AF_INET6, address.text().c_str(), &v6) != 1) return false;
  return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

template <typename Number>
std::optional<Number> numberIn(const std::string& text, int base) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || rest != end) return std::nullopt;
  return number;
}

uint32_t modeFrom(const std::string& text) {
  const auto mode = numberIn<uint32_t>(text, 8);
  if (!mode || *mode > 0777) refuse("unixMode " + text + " is no mode; write it as 0660");
  return *mode;
}

uid_t userFrom(const std::string& name) {
  if (name.empty()) return static_cast<uid_t>(-1);
  if (const passwd* user = getpwnam(name.c_str())) return user->pw_uid;
  if (const auto number = numberIn<uid_t>(name, 10)) return *number;
  refuse("unixOwner: there is no user " + name + "; write it as user, user:group or :group");
}

gid_t groupFrom(const std::string& name) {
  if (name.empty()) return static_cast<gid_t>(-1);
  if (const group* found = getgrnam(name.c_str())) return found->gr_gid;
  if (const auto number = numberIn<gid_t>(name, 10)) return *number;
  refuse("unixOwner: there is no group " + name + "; write it as user, user:group or :group");
}

void takeUnixSocket(const SecurityConfig& config, ServerSecurity& security) {
  const std::string prefix = "unix:";
  security.unixSocket = config.unixSocket();
  if (security.unixSocket.starts_with(prefix)) security.unixSocket.erase(0, prefix.size());
  if (security.unixSocket.empty()) return;
  if (security.unixSocket.front() != '/') {
    refuse("unixSocket " + config.unixSocket() + " is no absolute path; begin it with /");
  }
  security.unixMode = modeFrom(config.unixMode());
}

void takeUnixOwner(const SecurityConfig& config, ServerSecurity& security) {
  if (security.unixSocket.empty()) return;
  const std::string owner = config.unixOwner();
  const size_t colon = owner.find(':');
  security.unixUser = userFrom(owner.substr(0, colon));
  security.unixGroup = groupFrom(colon == std::string::npos ? "" : owner.substr(colon + 1));
}

// All three or none: a server that leaves one out would be less than it seems.
void takeCertificates(const SecurityConfig& config, ServerSecurity& security) {
  security.certificate = config.certificate();
  security.key = config.key();
  security.clientCa = config.clientCa();
  security.crl = config.crl();
  const bool wantsTls = !security.certificate.empty() || !security.key.empty() ||
                        !security.clientCa.empty() || !security.crl.empty();
  if (!wantsTls) return;
  const auto require = [](const std::string& path, const char* name) {
    if (path.empty()) {
      refuse(std::string(name) +
             " is missing; TLS wants certificate, key and clientCa, each the path of a PEM file");
    }
  };
  require(security.certificate, "certificate");
  require(security.key, "key");
  require(security.clientCa, "clientCa");
  if (config.insecure()) refuse("insecure contradicts certificate; take one of them out");
}

}  // namespace

ServerSecurity securityOnAnyMachine(const P4RtSystemConfig& system, const SecurityConfig& config) {
  ServerSecurity security;
  takeCertificates(config, security);
  takeUnixSocket(config, security);
  const bool isExposed = system.grpcServerPort() != 0 && security.certificate.empty() &&
                         !isLoopback(system.grpcServerAddress());
  if (isExposed && !config.insecure()) {
    refuse(fmt::format(
        "grpcServerAddress {} is open to other machines, and anybody who reaches it could write; "
        "set certificate, key and clientCa for TLS, or \"insecure\": true to let everybody in",
        system.grpcServerAddress().text()));
  }
  security.insecure = isExposed;
  return security;
}

ServerSecurity serverSecurity(const P4RtSystemConfig& system, const SecurityConfig& config) {
  ServerSecurity security = securityOnAnyMachine(system, config);
  takeUnixOwner(config, security);
  return security;
}

int runServer(const ServerSecurity& security, const std::string& address, uint16_t port) {
  const PIGrpcServerCertificates_t certificates{.certificate = security.certificate.c_str(),
                                                .key = security.key.c_str(),
                                                .client_ca = security.clientCa.c_str(),
                                                .crl = security.crl.c_str()};
  const PIGrpcServerUnixSocket_t unixSocket{.path = security.unixSocket.c_str(),
                                            .mode = security.unixMode,
                                            .user = security.unixUser,
                                            .group = security.unixGroup};
  return PIGrpcServerRunWith(port == 0 ? nullptr : address.c_str(),
                             security.certificate.empty() ? nullptr : &certificates,
                             security.unixSocket.empty() ? nullptr : &unixSocket);
}

std::string securityText(const ServerSecurity& security, uint16_t port) {
  std::string text;
  if (security.insecure) {
    text =
        "INSECURE: neither encrypted nor authenticated; anybody who reaches the address may write";
  } else if (port == 0) {
    text = "no address";
  } else if (security.certificate.empty()) {
    text = harmless;
  } else {
    text = std::string("TLS, clients need a certificate; the server's is ") +
           PIGrpcServerCertificate();
  }
  if (!security.unixSocket.empty()) {
    text += fmt::format("; unix:{}, mode {:04o}", security.unixSocket, security.unixMode);
  }
  const std::string trouble = PIGrpcServerCertificateTrouble();
  return trouble.empty() ? text : text + "\n" + trouble;
}

void SecurityLog::textIs(const std::string& text) {
  const bool isStable = text == last_;
  last_ = text;
  if (!isStable || text == told_) return;
  told_ = text;
  if (!text.starts_with(harmless)) Vela::tellError("P4Runtime server: {}", text);
}

}  // namespace P4Runtime
