// Reading and writing the files of the pipeline tool. Errors are PipelineError, one line each, that
// begin with the file's name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace google::protobuf {
class Message;
}
namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}
namespace p4::config::v1 {
class P4Info;
}

namespace Pipeline {

class Findings;

std::string fileContents(const std::string& path);
// Written beside and renamed, so that a reader finds the old or the new file, never half of one;
// a device or a pipe is written to.
void fileContentsIs(const std::string& path, std::string_view contents);

// Text (protobuf text form), JSON or binary, told apart by the contents. Fields newer than ours are
// skipped with a warning. So is the content of Any fields of unknown type (extern instances, other
// table properties): the agent could not turn them into JSON.
void readP4Info(const std::string& path, p4::config::v1::P4Info* p4Info, Findings* findings);

// Takes those out of a P4Info in memory.
void dropUnresolvableAnys(p4::config::v1::P4Info* p4Info, Findings* findings);

// The text form of `message`, from `text`. Unknown fields are skipped with a warning.
void parseTextForm(const std::string& path, std::string_view text,
                   google::protobuf::Message* message, Findings* findings);

// A pipeline file: a binary SetForwardingPipelineConfigRequest that holds a P4Info.
void readPipelineFile(const std::string& path, p4::v1::SetForwardingPipelineConfigRequest* request);

// The device JSON inside it; nothing, and an error, without one.
std::optional<std::string> deviceData(const p4::v1::SetForwardingPipelineConfigRequest& request,
                                      Findings* findings);

}  // namespace Pipeline
