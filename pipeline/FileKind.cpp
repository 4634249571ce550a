// Telling files of a P4 project apart by their contents.
#include "pipeline/FileKind.h"

#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/JsonFault.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

enum class FileKind { unknown, empty, p4Info, programJson, deviceJson, pipeline };

constexpr const char* build = "'korvel pipeline build --p4info FILE --device-id N -o PIPELINE'";

bool hasObjects(const p4::config::v1::P4Info& p4Info) {
  return !p4Info.tables().empty() || !p4Info.actions().empty();
}

bool isP4InfoText(std::string_view contents) {
  google::protobuf::TextFormat::Parser parser;
  parser.AllowUnknownField(true);
  parser.AllowPartialMessage(true);
  p4::config::v1::P4Info p4Info;
  parser.ParseFromString(std::string(contents), &p4Info);
  return hasObjects(p4Info);  // also when its end is broken
}

FileKind kindOfJson(std::string_view contents) {
  JsonFault fault;
  const Vela::Json json = parseJson(contents, &fault);
  const auto has = [&](const char* key) { return cJSON_HasObjectItem(json.get(), key) != 0; };
  if (has("header_types") || has("parsers") || has("pipelines")) return FileKind::programJson;
  if (has("p4rtc")) return FileKind::deviceJson;
  return has("tables") || has("actions") ? FileKind::p4Info : FileKind::unknown;
}

// Each kind of message reads as another one without a complaint, but then has nothing in its place.
FileKind kindOfBinary(std::string_view contents) {
  const std::string bytes(contents);
  p4::v1::SetForwardingPipelineConfigRequest request;
  if (request.ParseFromString(bytes) && hasObjects(request.config().p4info())) {
    return FileKind::pipeline;
  }
  p4::config::v1::P4Info p4Info;
  const bool isP4Info = p4Info.ParseFromString(bytes) && hasObjects(p4Info);
  if (!isP4Info) return FileKind::unknown;
  const auto& preamble =
      p4Info.tables().empty() ? p4Info.actions(0).preamble() : p4Info.tables(0).preamble();
  return preamble.name().empty() ? FileKind::unknown : FileKind::p4Info;
}

FileKind kindOf(std::string_view contents) {
  const google::protobuf::LogSilencer quiet;
  const size_t start = contents.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return FileKind::empty;
  if (!looksLikeText(contents)) return kindOfBinary(contents);
  if (contents[start] == '{') return kindOfJson(contents);
  return isP4InfoText(contents) ? FileKind::p4Info : FileKind::unknown;
}

}  // namespace

bool looksLikeText(std::string_view contents) {
  for (const char c : contents) {
    const bool blank = c == '\n' || c == '\r' || c == '\t' || c == '\f' || c == '\v';
    if (static_cast<unsigned char>(c) < 0x20 && !blank) return false;
  }
  return true;
}

std::string whyNoPipelineFile(std::string_view contents) {
  switch (kindOf(contents)) {
    case FileKind::empty:
      return "it is empty";
    case FileKind::p4Info:
      return std::string("it is a P4Info; make a pipeline file of it with ") + build;
    case FileKind::programJson:
      return std::string(
                 "it is the compiler's JSON for a software switch; make a pipeline file of"
                 " the P4Info beside it with ") +
             build;
    case FileKind::deviceJson:
      return std::string(
                 "it is the JSON of a device configuration alone; make a pipeline file of"
                 " the P4Info with ") +
             build;
    default:
      return {};
  }
}

std::string whyNoP4Info(std::string_view contents) {
  switch (kindOf(contents)) {
    case FileKind::empty:
      return "it is empty";
    case FileKind::programJson:
      return "it is the compiler's JSON for a software switch; give the P4Info, which the compiler"
             " writes with --p4runtime-files";
    case FileKind::deviceJson:
      return "it is the JSON of a device configuration; give the P4Info, which the compiler writes"
             " with --p4runtime-files";
    case FileKind::pipeline:
      return "it is a pipeline file already; try 'korvel pipeline check' on it";
    default:
      return {};
  }
}

}  // namespace Pipeline
