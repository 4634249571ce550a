#include "P4Runtime/agent/ServerLimits.h"

#include "PI/proto/pi_server.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;

void limitsFrom(const P4RtSystemConfig& config) {
  const PIGrpcServerLimits_t limits{
      .connections = config.maxConnections(),
      .streams = config.maxStreams(),
      .streams_of_role = config.maxStreamsOfRole(),
      .roles = config.maxRoles(),
      .arbitration_timeout_ms = static_cast<uint32_t>(config.arbitrationTimeout() * 1000),
      .writes = config.maxWrites(),
      .reads = config.maxReads(),
      .memory_mib = config.maxServerMemory()};
  PIGrpcServerLimitsIs(&limits);
}

}  // namespace

std::vector<Vela::Observation> followServerLimits(const P4RtSystemConfig& config) {
  const auto follow = [&config] { limitsFrom(config); };
  follow();
  std::vector<Vela::Observation> observations;
  const auto observe = [&](const auto& attribute) {
    observations.push_back(attribute.observe(follow));
  };
  observe(config.maxConnectionsAttribute());
  observe(config.maxStreamsAttribute());
  observe(config.maxStreamsOfRoleAttribute());
  observe(config.maxRolesAttribute());
  observe(config.arbitrationTimeoutAttribute());
  observe(config.maxWritesAttribute());
  observe(config.maxReadsAttribute());
  observe(config.maxServerMemoryAttribute());
  return observations;
}

}  // namespace P4Runtime
