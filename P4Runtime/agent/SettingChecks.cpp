#include "P4Runtime/agent/SettingChecks.h"

#include <fmt/format.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "P4Runtime/agent/PolicyFile.h"
#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/Settings.h"
#include "platform/vela/Text.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;
using Vela::Outcome;

// 0 if a server can listen there, else the errno.
int listenError(const std::string& address, uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    return EINVAL;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> info(found, freeaddrinfo);
  const int fd = socket(info->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int on = 1;  // ignore connections of a former server
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const bool listens = bind(fd, info->ai_addr, info->ai_addrlen) == 0 && listen(fd, 1) == 0;
  const int error = listens ? 0 : errno;
  close(fd);
  return error;
}

Outcome checkPort(const P4RtSystemConfig& config, const std::string& text) {
  const auto port = Vela::TextForm<uint16_t>::fromText(text);
  if (!port || *port == config.grpcServerPort()) return {};
  if (*port == 0)
    return Outcome::failure("grpcServerPort 0 is none; choose a port from 1 to 65535");
  if (config.grpcServerPort() == 0) {
    return Outcome::failure(
        "the server listens on its Unix socket alone; write grpcServerPort into the configuration "
        "file and start the agent anew");
  }
  const int error = listenError(config.grpcServerAddress().text(), *port);
  if (error == 0) return {};
  return Outcome::failure(fmt::format("cannot listen on {} port {}: {}; choose another port",
                                      config.grpcServerAddress().text(), *port,
                                      std::generic_category().message(error)));
}

// Pretended programming is for tests of controllers: it confirms entries that nobody programs.
Outcome checkPretending(const BatchStatus& batchStatus, bool allowed, const std::string& name,
                        const std::string& text) {
  if (!allowed) {
    return Outcome::failure(fmt::format(
        "{} is for tests of controllers: entries would be confirmed that nobody programs; start "
        "the agent with --allow-pretended-programming to allow it",
        name));
  }
  const auto value = [&](const Vela::AttributeBase& attribute) {
    return name == attribute.name() ? text : attribute.text();
  };
  if (value(batchStatus.pretendHwProgrammingFailedAttribute()) != "true" ||
      value(batchStatus.pretendHwProgrammingTimeoutAttribute()) != "true" ||
      value(batchStatus.pretendHwProgrammingFailedOffsetAttribute()) !=
          value(batchStatus.pretendHwProgrammingTimeoutOffsetAttribute())) {
    return {};
  }
  return Outcome::failure(
      "the update at an offset can either fail or time out; set the two offsets apart first");
}

}  // namespace

Vela::Outcome checkSetting(const Orrery::Database& database, bool pretendingAllowed,
                           const std::string& path, const Vela::AttributeBase& attribute,
                           const std::string& text) {
  const std::string name = attribute.name();
  const Orrery::Setting* setting = Orrery::findSetting(agentSettings(), path, name);
  const bool isLate = setting && setting->heeded == Orrery::Setting::Heeded::atStart;
  if (isLate && attribute.text() != text) {
    return Outcome::failure(fmt::format(
        "{} is read when the agent starts; write it into the configuration file and start the "
        "agent anew",
        name));
  }
  const auto entity = database.entity(path);
  const auto* config = dynamic_cast<const P4RtSystemConfig*>(entity.get());
  if (config && name == "grpcServerPort") return checkPort(*config, text);
  const auto* batchStatus = dynamic_cast<const BatchStatus*>(entity.get());
  if (batchStatus && name.starts_with("pretendHwProgramming")) {
    return checkPretending(*batchStatus, pretendingAllowed, name, text);
  }
  if (path == securityPath && name == "policy") return checkPolicyFile(text);
  const std::string fault = setting ? Orrery::rangeFault(*setting, text) : "";
  return fault.empty() ? Outcome() : Outcome::failure(fault);
}

}  // namespace P4Runtime
