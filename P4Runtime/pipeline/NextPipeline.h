// A pipeline that is to take the place of the running one.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "pipeline/PipelineCheck.h"

namespace P4Runtime {

class AwaitedChange;

// Read and found usable.
struct NextPipeline {
  std::string path;     // of its file
  std::string request;  // as it is pushed to the server
  std::string p4InfoJson;
  std::string modelJson;  // the P4Info with the tables that extensions add
  std::string deviceJson;
  Pipeline::Refused refused;
  Pipeline::Extensions extensions;
  std::string given = {};  // as a controller pushed it; empty: by configuration
  // The entries that were written under another number do not belong to it, and go; nothing: all
  // stay that still fit.
  std::optional<uint64_t> entries = {};
  std::shared_ptr<AwaitedChange> awaited = nullptr;  // null: nobody waits for it
};

// A change of the pipeline that somebody waits for. Dropped without a word of success or failure,
// it has been overtaken by another. On the reactor, with the activity lock held.
class AwaitedChange {
 public:
  virtual ~AwaitedChange() = default;
  // No Write is in progress. Puts the pipeline in force for the next start, too. False: it runs
  // already, and nothing is to be brought up. Throws what refuses the change: nothing is changed.
  virtual bool takeEffect(NextPipeline& next) = 0;
  virtual void succeed() = 0;
  // Puts the former pipeline in force again, before it is brought up once more.
  virtual void fail(const std::string& why) = 0;
};

}  // namespace P4Runtime
