#include "P4Runtime/agent/ServerLimits.h"

#include <fmt/format.h>

#include <array>

#include "PI/frontends/proto/device_mgr.h"
#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_process.h"
#include "platform/vela/Exception.h"
#include "platform/vela/Text.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;

// Other values would shut everybody out, or let a stream idle for good.
struct Range {
  const char* attribute;
  double least;
  double most;
};
constexpr double any = 1e6;
constexpr std::array<Range, 8> ranges{{{"maxConnections", 4, any},
                                       {"maxStreams", 1, any},
                                       {"maxStreamsOfRole", 1, any},
                                       {"maxRoles", 1, any},
                                       {"arbitrationTimeout", 0.1, 3600},
                                       {"maxWrites", 1, 10000},
                                       {"maxReads", 1, 10000},
                                       {"maxServerMemory", 64, any}}};

// The configuration file may hold values that `korvel set` would refuse.
void requireLimits(const P4RtSystemConfig& config) {
  for (const Range& range : ranges) {
    const Vela::Outcome fits =
        checkLimit(range.attribute, config.attribute(range.attribute)->text());
    if (!fits.ok()) throw Vela::Exception("p4runtime/config/system: " + fits.reason());
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

Vela::Outcome checkLimit(std::string_view name, const std::string& text) {
  for (const Range& range : ranges) {
    if (name != range.attribute) continue;
    const auto value = Vela::TextForm<double>::fromText(text);
    if (!value || (*value >= range.least && *value <= range.most)) return {};
    return Vela::Outcome::failure(
        fmt::format("{} {} is out of range; choose {} to {}", name, text, range.least, range.most));
  }
  return {};
}

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
