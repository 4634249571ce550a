// File access, and telling the forms of a file apart.
#include "pipeline/Files.h"

#include <google/protobuf/empty.pb.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/util/json_util.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "p4/config/v1/p4info.pb.h"
#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/FileKind.h"
#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"
#include "pipeline/Names.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

namespace pb = google::protobuf;

constexpr const char* noProperties =
    "its other_properties mean nothing to the agent and are left out";
constexpr const char* noExterns = "the agent serves no externs; its info is left out";

// Keeps the first error; each warning (an unknown field) becomes a finding.
class TextErrors : public pb::io::ErrorCollector {
 public:
  TextErrors(const std::string& path, Findings* findings) : path_(path), findings_(findings) {}
  void AddError(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (error_.empty()) error_ = place(line, column) + ": " + message;
  }
  void AddWarning(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (message.find(pb::Empty::descriptor()->full_name()) != std::string::npos) return;  // an Any
    if (message.find("deprecated field") != std::string::npos) return;  // which counts all the same
    findings_->warning("", place(line, column) + ": " + message + " It is left out.");
  }
  const std::string& error() const { return error_; }

 private:
  std::string place(int line, int column) const {
    if (line < 0) return path_;
    return path_ + ':' + std::to_string(line + 1) + ':' + std::to_string(column + 1);
  }

  const std::string& path_;
  Findings* findings_;
  std::string error_;
};

// Any fields hold messages of types that we do not know: they are read as messages without fields.
class AnyFinder : public pb::TextFormat::Finder {
 public:
  const pb::Descriptor* FindAnyType(const pb::Message&, const std::string&,
                                    const std::string&) const override {
    return pb::Empty::descriptor();
  }
};

}  // namespace

void dropUnresolvableAnys(p4::config::v1::P4Info* p4Info, Findings* findings) {
  for (auto& table : *p4Info->mutable_tables()) {
    if (!table.has_other_properties()) continue;
    table.clear_other_properties();
    findings->warning("table " + table.preamble().name(), noProperties);
  }
  for (auto& external : *p4Info->mutable_externs()) {
    for (auto& instance : *external.mutable_instances()) {
      if (!instance.has_info()) continue;
      instance.clear_info();
      findings->warning("extern " + instance.preamble().name(), noExterns);
    }
  }
}

namespace {

// In JSON, messages of types that we do not know cannot be read at all; in the other forms their
// contents are skipped.
std::string withoutAnys(const std::string& path, const std::string& text, Findings* findings) {
  const Vela::Json json = parseJsonFile(path, text);
  const auto drop = [&](cJSON* object, const char* key, const char* why) {
    if (cJSON_GetObjectItem(object, key) == nullptr) return;
    cJSON_DeleteItemFromObject(object, key);
    const cJSON* preamble = cJSON_GetObjectItem(object, "preamble");
    findings->warning(Vela::jsonString(preamble, "name").value_or("P4Info"), why);
  };
  cJSON* object = nullptr;
  for (const char* key : {"otherProperties", "other_properties"}) {
    cJSON_ArrayForEach(object, cJSON_GetObjectItem(json.get(), "tables"))
        drop(object, key, noProperties);
  }
  cJSON* external = nullptr;
  cJSON_ArrayForEach(external, cJSON_GetObjectItem(json.get(), "externs")) {
    cJSON_ArrayForEach(object, cJSON_GetObjectItem(external, "instances"))
        drop(object, "info", noExterns);
  }
  return Vela::jsonBytes(*json);
}

void parseP4InfoJson(const std::string& path, const std::string& text,
                     p4::config::v1::P4Info* p4Info, Findings* findings) {
  pb::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  const std::string readable = withoutAnys(path, text, findings);
  const auto status = pb::util::JsonStringToMessage(readable, p4Info, options);
  if (status.ok()) return;
  std::string reason(status.message());
  reason = reason.substr(0, reason.find('\n'));
  throw PipelineError(path + ": not a P4Info in JSON form: " + reason);
}

bool hasNoObjects(const p4::config::v1::P4Info& p4Info) {
  return p4Info.tables().empty() && p4Info.actions().empty() && p4Info.action_profiles().empty() &&
         p4Info.controller_packet_metadata().empty();
}

}  // namespace

std::string fileContents(const std::string& path) {
  if (std::filesystem::is_directory(path)) throw PipelineError(path + ": is a directory");
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream contents;
  if (file) contents << file.rdbuf();
  if (!file || file.bad()) {
    const int error = errno != 0 ? errno : EIO;
    throw PipelineError(path + ": cannot be read: " + std::strerror(error));
  }
  return contents.str();
}

// A link stays, and a device or a pipe is written to: no file may take their place.
void fileContentsIs(const std::string& path, std::string_view contents) {
  using std::filesystem::file_type;
  std::error_code none;
  const file_type there = std::filesystem::status(path, none).type();
  const bool isFile = there == file_type::regular;
  const bool replaces = isFile || there == file_type::not_found;
  const std::string target = isFile ? std::filesystem::canonical(path, none).string() : path;
  const std::string written = replaces ? target + ".new-" + std::to_string(getpid()) : target;
  errno = 0;
  std::ofstream file(written, std::ios::binary | std::ios::trunc);
  file << contents;
  file.close();
  if (file && (!replaces || std::rename(written.c_str(), target.c_str()) == 0)) return;
  const int error = errno;
  if (replaces) std::remove(written.c_str());
  throw PipelineError(path + ": cannot be written: " + std::strerror(error != 0 ? error : EIO));
}

void parseTextForm(const std::string& path, std::string_view text, pb::Message* message,
                   Findings* findings) {
  TextErrors errors(path, findings);
  const AnyFinder finder;
  pb::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  parser.AllowUnknownField(true);
  parser.SetFinder(&finder);
  if (parser.ParseFromString(std::string(text), message)) return;
  throw PipelineError(errors.error() + " (expected the text form of " +
                      message->GetDescriptor()->full_name() + ")");
}

void readP4Info(const std::string& path, p4::config::v1::P4Info* p4Info, Findings* findings) {
  const pb::LogSilencer oneLineOnly;
  const std::string contents = fileContents(path);
  if (const std::string why = whyNoP4Info(contents); !why.empty()) {
    throw PipelineError(path + ": no P4Info: " + why);
  }
  if (!looksLikeText(contents)) {
    if (!p4Info->ParseFromString(contents)) {
      throw PipelineError(path + ": not a P4Info: neither its text form nor a whole binary one");
    }
  } else if (contents[contents.find_first_not_of(" \t\r\n")] == '{') {
    parseP4InfoJson(path, contents, p4Info, findings);
  } else {
    Findings skipped;
    parseTextForm(path, contents, p4Info, &skipped);
    if (!hasNoObjects(*p4Info)) {
      for (const Finding& finding : skipped.list()) findings->warning("", finding.message);
    }
  }
  if (hasNoObjects(*p4Info)) {
    throw PipelineError(path +
                        ": no P4Info: it holds neither tables nor actions (give the file"
                        " that the P4 compiler wrote with --p4runtime-files)");
  }
  dropUnresolvableAnys(p4Info, findings);
}

void readPipelineFile(const std::string& path,
                      p4::v1::SetForwardingPipelineConfigRequest* request) {
  const pb::LogSilencer oneLineOnly;
  const std::string contents = fileContents(path);
  if (const std::string why = whyNoPipelineFile(contents); !why.empty()) {
    throw PipelineError(path + ": no pipeline file: " + why);
  }
  if (looksLikeText(contents)) {
    throw PipelineError(path +
                        ": a text file; expected a binary pipeline file, as 'korvel pipeline"
                        " build' makes it from a P4Info");
  }
  if (!request->ParseFromString(contents)) {
    throw PipelineError(path +
                        ": cut short or no pipeline file: it is no whole binary"
                        " p4.v1.SetForwardingPipelineConfigRequest");
  }
  if (!request->has_config()) {
    throw PipelineError(path +
                        ": no pipeline file: it holds no pipeline configuration (a P4Info"
                        " becomes one with 'korvel pipeline build')");
  }
}

std::optional<std::string> deviceData(const p4::v1::SetForwardingPipelineConfigRequest& request,
                                      Findings* findings) {
  const std::string remedy = "; make the file with 'korvel pipeline build'";
  const std::string& config = request.config().p4_device_config();
  p4::tmp::P4DeviceConfig device;
  if (config.empty()) {
    findings->error("", "it has no device configuration (p4_device_config)" + remedy);
  } else if (!device.ParseFromString(config)) {
    findings->error("", "its device configuration is no p4.tmp.P4DeviceConfig" + remedy,
                    {"Failed to read device configuration"});
  } else if (device.device_data().empty()) {
    findings->error("", "its device configuration has no device_data" + remedy,
                    {"Cannot parse JSON file"});
  } else {
    return device.device_data();
  }
  return std::nullopt;
}

}  // namespace Pipeline
