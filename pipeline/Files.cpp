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
#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

namespace pb = google::protobuf;

// Keeps the first error; each warning (an unknown field) becomes a finding.
class TextErrors : public pb::io::ErrorCollector {
 public:
  TextErrors(const std::string& path, Findings* findings) : path_(path), findings_(findings) {}
  void AddError(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (error_.empty()) error_ = place(line, column) + ": " + message;
  }
  void AddWarning(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (message.find(pb::Empty::descriptor()->full_name()) != std::string::npos) return;  // an Any
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

void dropUnresolvableAnys(p4::config::v1::P4Info* p4Info, Findings* findings) {
  for (auto& table : *p4Info->mutable_tables()) {
    if (!table.has_other_properties()) continue;
    table.clear_other_properties();
    findings->warning("table " + table.preamble().name(),
                      "its other_properties mean nothing to the agent and are left out");
  }
  for (auto& external : *p4Info->mutable_externs()) {
    for (auto& instance : *external.mutable_instances()) {
      if (!instance.has_info()) continue;
      instance.clear_info();
      findings->warning("extern " + instance.preamble().name(),
                        "the agent serves no externs; its info is left out");
    }
  }
}

void parseP4InfoJson(const std::string& path, const std::string& text,
                     p4::config::v1::P4Info* p4Info) {
  pb::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  const auto status = pb::util::JsonStringToMessage(text, p4Info, options);
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

void fileContentsIs(const std::string& path, std::string_view contents) {
  const std::string temporary = path + ".new-" + std::to_string(getpid());
  std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
  file << contents;
  file.close();
  if (file && std::rename(temporary.c_str(), path.c_str()) == 0) return;
  const int error = errno;
  std::remove(temporary.c_str());
  throw PipelineError(path + ": cannot be written: " + std::strerror(error != 0 ? error : EIO));
}

bool looksLikeText(std::string_view contents) {
  for (const char c : contents) {
    const bool blank = c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v';
    if (static_cast<unsigned char>(c) < 0x20 && !blank) return false;
  }
  return true;
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
  const size_t start = contents.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) throw PipelineError(path + ": empty; expected a P4Info");
  if (!looksLikeText(contents)) {
    if (!p4Info->ParseFromString(contents)) {
      throw PipelineError(path + ": not a P4Info: neither its text form nor a whole binary one");
    }
  } else if (contents[start] == '{') {
    parseP4InfoJson(path, contents, p4Info);
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
  if (contents.empty()) throw PipelineError(path + ": empty; expected a pipeline file");
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

std::string deviceData(const p4::v1::SetForwardingPipelineConfigRequest& request) {
  const std::string remedy = "; make the file with 'korvel pipeline build'";
  const std::string& config = request.config().p4_device_config();
  if (config.empty())
    throw PipelineError("it has no device configuration (p4_device_config)" + remedy);
  p4::tmp::P4DeviceConfig device;
  if (!device.ParseFromString(config)) {
    throw PipelineError("its device configuration is no p4.tmp.P4DeviceConfig" + remedy);
  }
  if (device.device_data().empty())
    throw PipelineError("its device configuration has no device_data" + remedy);
  return device.device_data();
}

}  // namespace Pipeline
