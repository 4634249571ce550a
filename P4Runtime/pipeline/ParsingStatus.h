// The outcome of the last attempt to read the pipeline configuration, for operators.
#pragma once

#include <string>

#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/status/pipeline". Call with the activity lock held. Nothing throws. Lives as long
// as the process.
class ParsingStatus : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::ParsingStatus"; }

  VELA_READONLY_ATTRIBUTE(bool, failed, false)
  VELA_READONLY_ATTRIBUTE(std::string, latticeError, "")
  VELA_READONLY_ATTRIBUTE(std::string, error, "")
  VELA_READONLY_ATTRIBUTE(std::string, jsonError, "")
  VELA_READONLY_ATTRIBUTE(std::string, hint, "")
  VELA_READONLY_ATTRIBUTE(std::string, text, "")  // all of them in one line
  VELA_READONLY_ATTRIBUTE(uint32_t, failures, 0)  // since the agent started
  // Tables and actions of the running pipeline that cannot be programmed, and why; one a line.
  VELA_READONLY_ATTRIBUTE(std::string, refused, "")
  VELA_READONLY_ATTRIBUTE(bool, waitsForPush, false)  // no file is configured, and none was pushed
  // The file of the running pipeline; the configuration may name another. "": none yet.
  VELA_READONLY_ATTRIBUTE(std::string, pipelineFile, "")

 public:
  // False if this failure is already recorded.
  bool failureIs(const std::string& latticeError, const std::string& error,
                 const std::string& jsonError, const std::string& hint = {});
  void failureCleared();
};

// One a process; never null.
ParsingStatus* TheParsingStatus();

}  // namespace P4Runtime
