// Building a pipeline file from a P4Info. Errors are PipelineError, one line each.
#pragma once

#include <cstdint>
#include <string>

#include "pipeline/TableLayout.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace Pipeline {

class Findings;

struct BuildOptions {
  std::string p4InfoPath;
  uint32_t deviceId = 0;
  std::string entriesPath;  // empty: no constant entries
  std::string queriesPath;  // empty: no queries
  std::string electionId;   // decimal, or "HIGH:LOW"; empty: none in the file
  std::string outputPath;
  // For controllers that send what they send: the program may have no tables, and their packets may
  // leave header fields out.
  bool isPush = false;
  bool plain = false;  // without extensions: what needs them cannot be programmed
  // A compiled program, whose entries come with the pipeline where no file gives any. Entries of
  // tables that the P4Info says are not constant become initial ones.
  std::string program = {};
  TableNames tableNames = {};  // of a running pipeline, whose tables are to stay
};

// Completes the request of a pipeline file that holds a P4Info so far, unless the findings hold
// errors. Any thread. Reads the files of entries and queries that the options name, no other file.
void buildRequest(const BuildOptions& options, p4::v1::SetForwardingPipelineConfigRequest* request,
                  Findings* findings);

// Writes the pipeline file unless the findings hold errors; then nothing is written.
void buildPipeline(const BuildOptions& options, Findings* findings);

}  // namespace Pipeline
