#include "P4Runtime/pipeline/P4TableInfoSm.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "P4Runtime/pipeline/FormerEntries.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/FileKind.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

// For people only, so a file that cannot be written stops nothing.
void writeForPeople(const std::string& path, const std::string& text) {
  if (path.empty()) return;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (file) return;
  SCRIVEL_TRACE(0, "P4TableInfoSm", " cannot write ", path);
  Vela::tellError(
      "cannot write {}: the running pipeline cannot be read there; set "
      "p4InfoJsonPath and deviceJsonPath of p4runtime/config/agent to writable places",
      path);
}

constexpr const char* nameAFile =
    "set forwardingPipelineConfigFilePath of p4runtime/config/system to a file that 'korvel "
    "pipeline "
    "build' has made";

// Empty for a regular file, or when nothing stands there. A pipe would block the reactor until
// somebody writes to it.
std::string whyNoFile(const std::string& path) {
  std::error_code none;
  const auto there = std::filesystem::status(path, none);
  if (!std::filesystem::exists(there) || std::filesystem::is_regular_file(there)) return {};
  return std::filesystem::is_directory(there) ? "it is a directory" : "it is no regular file";
}

// Names the kind of a file that is no pipeline file for this agent; empty when it is unknown.
std::string whatItIs(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string contents(std::istreambuf_iterator<char>(file), {});
  return Pipeline::whyNoPipelineFile(contents);
}

std::string jsonOf(const p4::config::v1::P4Info& p4Info) {
  std::string json;
  const auto converted = google::protobuf::util::MessageToJsonString(p4Info, &json);
  if (converted.ok()) return json;
  throw P4RuntimeParsingException({}, "Failed to convert p4Info to JSON " + converted.ToString(),
                                  {});
}

// Throws the first finding that keeps the pipeline from running; all findings are traced.
void requireRunnable(const Pipeline::Findings& findings) {
  for (const Pipeline::Finding& finding : findings.list()) {
    SCRIVEL_TRACE(1, "P4TableInfoSm", " pipeline: ", Pipeline::findingText(finding));
  }
  if (const Pipeline::Finding* error = findings.firstError()) {
    const Pipeline::ParsingFailure& failure = error->failure;
    throw P4RuntimeParsingException(failure.latticeError, failure.error, failure.jsonError);
  }
}

}  // namespace

void throwParsingException(const std::string& what, const std::string& detail) {
  const char* stopped = cJSON_GetErrorPtr();
  throw P4RuntimeParsingException({}, what + detail, stopped ? stopped : "");
}

P4TableInfoSm::P4TableInfoSm(Vela::Ptr<P4TableInfo> tableInfo,
                             P4ControllerPktMetadata::Ptr controllerPktMetadata,
                             Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
                             PipelineServices services, PipelineFiles files)
    : Entity("p4TableInfoSm"),
      tableInfo_(std::move(tableInfo)),
      controllerPktMetadata_(std::move(controllerPktMetadata)),
      systemConfig_(std::move(systemConfig)),
      services_(std::move(services)),
      files_(std::move(files)) {
  changes_.push_back(allTypesCompiledAttribute().observe([this] { handleAllTypesCompiled(); }));
  changes_.push_back(
      allArInterfacesCreatedAttribute().observe([this] { maybeUpdateAllArInterfacesReady(); }));
  changes_.push_back(
      allArInterfacesReadyAttribute().observe([this] { handleAllArInterfacesReady(); }));
  changes_.push_back(allQueriesReceivedAttribute().observe([this] { handleAllQueriesReceived(); }));
  changes_.push_back(allQueriesCompiledAttribute().observe([this] { handleAllQueriesCompiled(); }));
  changes_.push_back(
      tableInfo_->cleanupRequestIdAttribute().observe([this] { handleCleanupRequest(); }));
  changes_.push_back(systemConfig_->enabledAttribute().observe([this] { handleEnabled(); }));
  changes_.push_back(systemConfig_->forwardingPipelineConfigFilePathAttribute().observe(
      [this] { handleConfiguredPath(); }));
  changes_.push_back(services_.typeStatusDir->entityCollection().observeKeys(
      [this](const std::string& name) { watchTypeStatus(name); }));
  changes_.push_back(services_.queryStatusDir->entityCollection().observeKeys(
      [this](const std::string& name) { watchQueryStatus(name); }));
  handleInitialized();
}

Vela::Ptr<P4TableInfoSm> p4TableInfoSmFactory(
    Vela::Ptr<P4TableInfo> tableInfo, P4ControllerPktMetadata::Ptr controllerPktMetadata,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig, PipelineServices services,
    PipelineFiles files) {
  return Vela::make<P4TableInfoSm>(std::move(tableInfo), std::move(controllerPktMetadata),
                                   std::move(systemConfig), std::move(services), std::move(files));
}

void P4TableInfoSm::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  handleCleanupRequest();
  handlePipelineConfigFile();
  initializedIs(true);
}

// A pushed pipeline stays until it is reset.
void P4TableInfoSm::handleConfiguredPath() {
  const std::string path = systemConfig_->forwardingPipelineConfigFilePath();
  const bool isPushed = !given_.empty() || (awaited_ && systemConfig_->enabled());
  if (!isPushed) return handlePipelineConfigFile();
  SCRIVEL_TRACE(1, "handleConfiguredPath", " a pushed pipeline stays; configured: ", path);
  Vela::tellError(
      "the pipeline that a controller pushed stays; 'korvel pipeline reset' goes "
      "back to the configured one, {} now",
      path.empty() ? "none" : path);
}

void P4TableInfoSm::handlePipelineConfigFile() {
  SCRIVEL_TRACE(1, "handlePipelineConfigFile", " File ",
                systemConfig_->forwardingPipelineConfigFilePath());
  if (!systemConfig_->enabled()) return;  // handleEnabled() asks again
  next_.reset();                          // a change that waits for a Write is overtaken
  runGuarded([&] { pipelineIs(readPipelineInForce()); });
  TheParsingStatus()->waitsForPushIs(!next_ && awaitsFirst());
}

// Whether only a push can bring a pipeline.
bool P4TableInfoSm::awaitsFirst() const {
  return systemConfig_->forwardingPipelineConfigFilePath().empty() &&
         tableInfo_->pipelineRequest().empty();
}

void P4TableInfoSm::pipelineIs(NextPipeline next) {
  next_ = std::move(next);
  change_.close([this] { doChange(); });
}

NextPipeline P4TableInfoSm::readPipelineInForce() const {
  const auto mark = services_.pushed ? services_.pushed->mark() : std::nullopt;
  if (!mark) return configuredPipeline();
  NextPipeline next = readPipelineConfigFile(services_.pushed->pipelinePath(*mark));
  next.given = services_.pushed->given(*mark);
  next.entries = mark->entries;
  return next;
}

NextPipeline P4TableInfoSm::configuredPipeline() const {
  return readPipelineConfigFile(systemConfig_->forwardingPipelineConfigFilePath());
}

NextPipeline P4TableInfoSm::readPipelineConfigFile(const std::string& path) const {
  const auto fail = [](const std::string& text, const std::string& hint = {}) {
    throw P4RuntimeParsingException({}, text, {}, hint);
  };
  if (path.empty()) {
    fail("Pipeline Configuration not available yet: ",
         "a controller may push one, or " + std::string(nameAFile));
  }
  const std::string unreadable = "Failed to read pipeline configuration file " + path;
  if (const std::string why = whyNoFile(path); !why.empty()) fail(unreadable, why);
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    fail("Failed to open file " + path, std::strerror(errno) + (", " + std::string(nameAFile)));
  }
  std::error_code none;
  if (const auto bytes = std::filesystem::file_size(path, none);
      !none && bytes > Pipeline::maxPipelineBytes) {
    fail(unreadable, fmt::format("it has {} bytes; the server takes at most {}", bytes,
                                 Pipeline::maxPipelineBytes));
  }
  p4::v1::SetForwardingPipelineConfigRequest request;
  if (!request.ParseFromIstream(&file)) fail(unreadable, whatItIs(path));
  if (request.device_id() != systemConfig_->deviceId()) {
    fail(
        fmt::format(
            "Device id in the pipeline configuration {} does not match the configured device id {}",
            request.device_id(), systemConfig_->deviceId()),
        whatItIs(path));
  }
  return checkedPipeline(path, request);
}

NextPipeline P4TableInfoSm::checkedPipeline(
    const std::string& path, const p4::v1::SetForwardingPipelineConfigRequest& request) {
  NextPipeline next{path, request.SerializeAsString(), {}, {}, {}, {}, {}};
  next.p4InfoJson = jsonOf(request.config().p4info());
  p4::tmp::P4DeviceConfig device;
  if (!device.ParseFromString(request.config().p4_device_config())) {
    throw P4RuntimeParsingException({}, "Failed to read device configuration " + path, {});
  }
  next.deviceJson = std::move(*device.mutable_device_data());
  Pipeline::Verdict verdict = Pipeline::checkPipeline(request);
  requireRunnable(verdict.findings);
  next.refused = std::move(verdict.refused);
  next.extensions = verdict.extensions;
  next.modelJson = jsonOf(Pipeline::withAdditions(request.config().p4info(), next.extensions));
  return next;
}

// No batch is in progress, and none begins: a Write in progress needs the former model, since a
// failed update is put back through the tables' interfaces. The gate stays closed until the new
// model is ready.
void P4TableInfoSm::doChange() {
  if (std::exchange(cleanupRequested_, false)) doCleanUp();
  auto next = std::exchange(next_, std::nullopt);
  if (next) {
    const bool takesEffect = !next->awaited || next->awaited->takeEffect(*next);
    if (takesEffect) runGuarded([&] { doBringUp(*next); });
  }
  change_.open();  // before the change that was awaited goes: until then others wait for its end
}

void P4TableInfoSm::doBringUp(const NextPipeline& next) {
  TheParsingStatus()->waitsForPushIs(false);
  awaited_ = next.awaited;
  doForgetPipeline();
  const bool entriesGo =
      next.entries && services_.entries && !services_.entries->areOf(*next.entries);
  push_ = entriesGo ? next.entries : std::nullopt;
  if (push_) services_.entries->setAside();
  refused_ = next.refused;
  extensions_ = next.extensions;
  given_ = next.given;
  tableInfo_->pipelineRequestIs(next.request);
  tableInfo_->setsCountersIs(extensions_.entities);
  TheParsingStatus()->pipelineFileIs(next.path);
  writeForPeople(files_.p4InfoJsonPath, next.p4InfoJson);
  handleP4InfoStr(next.modelJson);
  writeForPeople(files_.deviceJsonPath, next.deviceJson);
  TheParsingStatus()->failureCleared();
  handlePipelineConfigStr(next.deviceJson);
}

void P4TableInfoSm::handleServed() {
  if (tableInfo_->tableInfoState() != P4TableInfoState::tableInfoReady) return;
  if (const auto awaited = std::exchange(awaited_, nullptr)) awaited->succeed();
}

// The former pipeline comes up again in place of one that somebody waits for.
void P4TableInfoSm::handleFailure() {
  const auto awaited = std::exchange(awaited_, nullptr);
  if (!awaited) return;
  awaited->fail(TheParsingStatus()->text());
  handlePipelineConfigFile();
}

// A new pipeline starts from nothing. Rows and records of the former one stay until the new one's
// tables are known.
void P4TableInfoSm::doForgetPipeline() {
  ++generation_;
  jsonRoot_ = nullptr;  // first: the reactions to the changes below must find nothing to build
  jsonRootToDelete_.reset();
  tableInfo_->tableInfoStateIs(P4TableInfoState::tableInfoNotReady);
  controllerPktMetadata_->metadataEntryDelAll();
  bitwidthsInitializedIs(false);
  allTypesCompiledIs(false);
  allArInterfacesCreatedIs(false);
  arInterfaceReadyDelAll();
  allArInterfacesReadyIs(false);
  allQueriesReceivedIs(false);
  allQueriesCompiledIs(false);
  services_.queryConfigDir->activeQueryConfigDelAll();
  services_.queryConfigDir->queryConfigDelAll();
  services_.typeConfigDir->typeConfigDelAll();
  tableInfo_->modelDel();
  refused_ = {};
  extensions_ = {};
  TheParsingStatus()->refusedIs("");
  queryOutputs_.clear();
}

void P4TableInfoSm::handlePipelineConfigStr(const std::string& deviceConfigJson) {
  SCRIVEL_TRACE(1, "handlePipelineConfigStr", " bytes ", deviceConfigJson.size());
  Vela::Json document(cJSON_Parse(deviceConfigJson.c_str()));
  if (!document) throwParsingException("Cannot parse JSON file");
  const cJSON* root = Vela::jsonObject(document.get(), "p4rtc");
  if (!root) {
    throw P4RuntimeParsingException({}, "Cannot find root token in the pipeline file", {});
  }
  jsonRoot_ = root;
  jsonRootToDelete_ = std::move(document);
  createLatticeTableTypes();
}

}  // namespace P4Runtime
