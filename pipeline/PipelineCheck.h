// Whether a pipeline runs, and what of it does not: one check for the agent and for the tool.
#pragma once

#include <string>

#include "pipeline/Finding.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace Pipeline {

// An error for each reason why no agent can run the pipeline, a warning for what it would run
// without. Changes nothing and may be called on any thread; no contents make it throw.
Findings checkPipeline(const p4::v1::SetForwardingPipelineConfigRequest& request);

// The same of a file; one that is none is an error, too.
Findings checkPipelineFile(const std::string& path);

}  // namespace Pipeline
