#include "pipeline/PushedConfig.h"

#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/PipelineBuild.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

using p4::tmp::P4DeviceConfig;

bool isJson(const std::string& bytes) {
  const size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string::npos && bytes[first] == '{';
}

// As 'korvel pipeline build' makes one.
bool isDeviceConfig(const std::string& program) {
  return isJson(program) && program.find("\"p4rtc\"") != std::string::npos &&
         Vela::jsonObject(Vela::parseJson(program).get(), "p4rtc") != nullptr;
}

}  // namespace

// Messages of other planes often pass for one of any type: their fields are unknown to this one.
std::string programOf(const std::string& p4DeviceConfig) {
  P4DeviceConfig wrapped;
  if (isJson(p4DeviceConfig) || !wrapped.ParseFromString(p4DeviceConfig)) return p4DeviceConfig;
  const bool isWrapped =
      wrapped.GetReflection()->GetUnknownFields(wrapped).empty() && !wrapped.device_data().empty();
  return isWrapped ? wrapped.device_data() : p4DeviceConfig;
}

std::string compiledProgramOf(const std::string& p4DeviceConfig) {
  std::string program = programOf(p4DeviceConfig);
  return isJson(program) && !isDeviceConfig(program) ? program : "";
}

std::optional<p4::v1::SetForwardingPipelineConfigRequest> pipelineOfPush(
    const p4::v1::ForwardingPipelineConfig& pushed, uint32_t deviceId, Findings* findings,
    const TableNames& names) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  *request.mutable_config()->mutable_p4info() = pushed.p4info();
  dropUnresolvableAnys(request.mutable_config()->mutable_p4info(), findings);
  std::string program = programOf(pushed.p4_device_config());
  if (isDeviceConfig(program)) {
    P4DeviceConfig ours;
    ours.set_device_data(std::move(program));
    request.set_device_id(deviceId);
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
    request.mutable_config()->set_p4_device_config(ours.SerializeAsString());
  } else {
    BuildOptions options;
    options.deviceId = deviceId;
    options.isPush = true;
    options.tableNames = names;
    if (isJson(program)) options.program = std::move(program);
    buildRequest(options, &request, findings);
  }
  if (findings->hasErrors()) return std::nullopt;
  return request;
}

}  // namespace Pipeline
