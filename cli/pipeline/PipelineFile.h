// The three jobs on pipeline files: build, check, show. Errors are PipelineError, one line each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Cli {

class Findings;

struct BuildOptions {
  std::string p4InfoPath;
  uint64_t deviceId = 0;
  std::string entriesPath;  // empty: no constant entries
  std::string queriesPath;  // empty: no queries
  std::string electionId;   // decimal, or "HIGH:LOW"; empty: none in the file
  std::string outputPath;
};

// Writes the pipeline file unless the findings hold errors; then nothing is written.
void buildPipeline(const BuildOptions& options, Findings* findings);

// What would not work with the file.
void checkPipeline(const std::string& path, Findings* findings);

// The pipeline for people, or as JSON.
std::string shownPipeline(const std::string& path, bool json);

// The findings of `path` as a JSON object {"file", "runs", "findings": [...]}.
std::string findingsJson(const std::string& path, const Findings& findings);

}  // namespace Cli
