// From the forwarding pipeline configuration that a controller pushes to a pipeline of our own.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "pipeline/TableLayout.h"

namespace p4::v1 {
class ForwardingPipelineConfig;
class SetForwardingPipelineConfigRequest;
}  // namespace p4::v1

namespace Pipeline {

class Findings;

// The program in a p4_device_config: the whole of it, or the data that a p4.tmp.P4DeviceConfig
// wraps.
std::string programOf(const std::string& p4DeviceConfig);

// The compiled program in a p4_device_config that holds one as JSON; empty for a device
// configuration of ours, and for opaque bytes.
std::string compiledProgramOf(const std::string& p4DeviceConfig);

// The request of a pipeline file. The device configuration is built from the P4Info, unless the
// controller pushed one of ours; tables with one of the `names` are called so. Nothing, and errors,
// for what cannot run. Any thread.
std::optional<p4::v1::SetForwardingPipelineConfigRequest> pipelineOfPush(
    const p4::v1::ForwardingPipelineConfig& pushed, uint32_t deviceId, Findings* findings,
    const TableNames& names = {});

}  // namespace Pipeline
