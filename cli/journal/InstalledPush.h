// Which push of a controller led to a pipeline that the agent installed.
#pragma once

#include <string_view>

namespace p4::v1 {
class ForwardingPipelineConfig;
}

namespace Cli {

// Whether the agent's own request, by its bytes, installs the pipeline that a controller pushed:
// as it was pushed, or as the agent builds it from that.
bool installs(std::string_view ownRequest, const p4::v1::ForwardingPipelineConfig& pushed);

}  // namespace Cli
