#include "P4Runtime/agent/ServerLimits.h"

#include <fmt/format.h>

#include "P4Runtime/companion/Settings.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_process.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;

constexpr const char* systemPath = "p4runtime/config/system";

// Files and commands were refused already; code sets any value.
void requireLimits(const P4RtSystemConfig& config) {
  for (const auto* attribute : config.attributes()) {
    const auto* setting = Orrery::findSetting(agentSettings(), systemPath, attribute->name());
    const std::string fault = setting ? Orrery::rangeFault(*setting, attribute->text()) : "";
    if (!fault.empty()) throw Vela::Exception(fmt::format("{}: {}", systemPath, fault));
  }
}

void limitsFrom(const P4RtSystemConfig& config) {
  PIGrpcServerLimits_t limits;
  PIGrpcServerDefaultLimits(&limits);
  limits.connections = config.maxConnections();
  limits.streams = config.maxStreams();
  limits.streams_of_role = config.maxStreamsOfRole();
  limits.roles = config.maxRoles();
  limits.arbitration_timeout_ms = static_cast<uint32_t>(config.arbitrationTimeout() * 1000);
  limits.writes = config.maxWrites();
  limits.reads = config.maxReads();
  limits.memory_mib = config.maxServerMemory();
  PIGrpcServerLimitsIs(&limits);
}

void lenienceFrom(const P4RtSystemConfig& config) {
  const PIGrpcServerLenience_t lenience{.device_zero = config.deviceIdZero(),
                                        .no_pipeline_is_error = config.noPipelineIsError()};
  PIGrpcServerLenienceIs(&lenience);
  pi::fe::proto::DeviceMgr::set_zero_weights_allowed(config.zeroWeights());
  pi::fe::proto::DeviceMgr::set_both_counts_read(config.bothCounts());
  pi::fe::proto::DeviceMgr::set_answers_padded(config.paddedAnswers());
}

}  // namespace

std::vector<Vela::Observation> followServerLimits(const P4RtSystemConfig& config) {
  requireLimits(config);
  PIGrpcServerOnlyDeviceIs(config.deviceId());
  const auto follow = [&config] {
    limitsFrom(config);
    lenienceFrom(config);
  };
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
  observe(config.deviceIdZeroAttribute());
  observe(config.noPipelineIsErrorAttribute());
  observe(config.zeroWeightsAttribute());
  observe(config.bothCountsAttribute());
  observe(config.paddedAnswersAttribute());
  return observations;
}

}  // namespace P4Runtime
