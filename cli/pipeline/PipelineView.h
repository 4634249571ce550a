// A pipeline as a JSON document, the one source of both forms of 'korvel pipeline show'.
#pragma once

#include <string>

#include "platform/vela/Json.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace Cli {

// {"device_id", "election_id", "name", "version", "tables": [...], "action_profiles": [...],
//  "entity_tables": [names], "entity_entries": [...], "queries": [...], "packet_headers": [...]}.
// `path` is for errors. Throws Pipeline::PipelineError.
Vela::Json pipelineView(const std::string& path,
                        const p4::v1::SetForwardingPipelineConfigRequest& request);

}  // namespace Cli
