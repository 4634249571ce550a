// Building a pipeline file from a P4Info. Errors are PipelineError, one line each.
#pragma once

#include <cstdint>
#include <string>

namespace Pipeline {

class Findings;

struct BuildOptions {
  std::string p4InfoPath;
  uint32_t deviceId = 0;
  std::string entriesPath;  // empty: no constant entries
  std::string queriesPath;  // empty: no queries
  std::string electionId;   // decimal, or "HIGH:LOW"; empty: none in the file
  std::string outputPath;
};

// Writes the pipeline file unless the findings hold errors; then nothing is written.
void buildPipeline(const BuildOptions& options, Findings* findings);

}  // namespace Pipeline
