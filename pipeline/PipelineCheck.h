// Whether a pipeline runs, and which parts of it do not: one check for the agent and for the tool.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "pipeline/Extensions.h"
#include "pipeline/Finding.h"
#include "pipeline/TableLayout.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace Pipeline {

// The largest pipeline file that the server takes.
inline constexpr size_t maxPipelineBytes = size_t{64} << 20;

// The parts of a running pipeline that the agent does not program, and why. The rest works.
struct Refused {
  std::map<TableRef, std::string> tables;         // of the P4Info, and of the rows of profiles
  std::map<uint32_t, std::string> actions;        // of the P4Info, in any table
  std::set<std::pair<uint32_t, size_t>> entries;  // constant ones: table id, place in its list
};

// An error for each reason why no agent can run the pipeline, a warning for each thing that it
// would run without. `refused` and `extensions` count when there is no error.
struct Verdict {
  Findings findings;
  Refused refused;
  Extensions extensions;  // that the pipeline asks for
};

// Changes nothing and may be called on any thread; no contents make it throw.
Verdict checkPipeline(const p4::v1::SetForwardingPipelineConfigRequest& request);

// The same of a file; one that is no pipeline file gives an error.
Verdict checkPipelineFile(const std::string& path);

}  // namespace Pipeline
