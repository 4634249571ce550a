#include "P4Runtime/agent/PipelinePusher.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/target/pi_extensions_imp.h"
#include "p4/Engine.h"
#include "p4/program/ProgramError.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/PushedConfig.h"
#include "pipeline/RowNames.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PipelinePusher");

using Config = p4::v1::ForwardingPipelineConfig;
using Request = p4::v1::SetForwardingPipelineConfigRequest;
using google::protobuf::util::MessageDifferencer;

// Canonical codes of gRPC.
constexpr int invalidArgument = 3;
constexpr int notFound = 5;
constexpr int failedPrecondition = 9;
constexpr int internalError = 13;
constexpr int unavailable = 14;

constexpr std::chrono::seconds patience(60);  // for another push, and for the pipeline to run
constexpr std::chrono::seconds executionPatience(20);  // for forwarding agents to take a program
constexpr size_t mostTold = 20;                        // faults of a pipeline

struct PushRefused : std::runtime_error {
  PushRefused(int code, const std::string& why) : std::runtime_error(why), code(code) {}
  const int code;
};

std::string textOf(const Pipeline::Findings& findings, Pipeline::Severity severity) {
  std::string text;
  size_t count = 0;
  for (const Pipeline::Finding& finding : findings.list()) {
    if (finding.severity != severity) continue;
    if (++count <= mostTold) text += (text.empty() ? "" : "; ") + Pipeline::findingText(finding);
  }
  if (count > mostTold) text += fmt::format("; and {} more", count - mostTold);
  return text;
}

// For a switch whose operator wants all of a program or nothing of it.
void requireWhole(const Pipeline::Findings& built, const Request& request) {
  std::string lacks = textOf(built, Pipeline::Severity::warning);
  if (lacks.empty()) {
    lacks = textOf(Pipeline::checkPipeline(request).findings, Pipeline::Severity::warning);
  }
  if (lacks.empty()) return;
  throw PushRefused(invalidArgument,
                    "the pipeline would run without some of its parts, which the setting "
                    "strictPushes of p4runtime/config/agent forbids: " +
                        lacks);
}

// For a switch whose forwarding agent executes the program itself.
void requireExecutable(const std::string& given, const std::string& program) {
  if (given.empty()) return;  // the former program stays
  if (program.empty()) {
    throw PushRefused(
        invalidArgument,
        "p4_device_config is no compiled P4 program in JSON, which this switch executes");
  }
  try {
    const P4::Engine engine(program);
  } catch (const P4::ProgramError& e) {
    throw PushRefused(invalidArgument,
                      fmt::format("this switch cannot execute the program: {}", e.what()));
  }
}

std::string namesOf(const p4::config::v1::P4Info& p4Info, const std::string& deviceJson) {
  Pipeline::Findings findings;
  const auto config = Pipeline::parseDeviceConfig(deviceJson, &findings);
  return config ? Pipeline::rowNames(p4Info, *config) : "";
}

// Of a table; its default entry has a table of its own.
Pipeline::TableRef refOf(const ResourceId& rid) {
  constexpr uint32_t markOfDefaults = PI_DEFAULT_ENTRY_TABLE(0);
  if ((rid.id & markOfDefaults) == 0) return {Pipeline::TableKind::match, rid.id};
  return {Pipeline::TableKind::defaultEntry, PI_DEFAULT_ENTRY_TABLE(rid.id)};
}

// Files that stay are removed with those of the next push, or at the next start.
void removeOthers(const PushedFiles& files) {
  try {
    files.removeOthers();
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "removeOthers", " files of pushes stay: ", e.what());
  }
}

std::string textOf(const P4RuntimeParsingException& e) {
  std::string text = e.error;
  for (const std::string& part : {e.latticeError, e.jsonError, e.hint}) {
    if (!part.empty()) text += ": " + part;
  }
  return text;
}

}  // namespace

// A pipeline that was found usable.
struct PipelinePusher::Built {
  Config config;        // as it came
  std::string given;    // its bytes
  NextPipeline next;    // without a path
  std::string program;  // compiled; empty: the push has none
  std::string names;    // of the objects that rows hold
};

// Answers the controller once, whatever becomes of the change.
class PipelinePusher::Change : public AwaitedChange {
 public:
  Change(PipelinePusher& pusher, std::shared_ptr<const Built> built, uint64_t number,
         bool keepsEntries)
      : pusher_(pusher), built_(std::move(built)), mark_{number, number}, keeps_(keepsEntries) {}
  ~Change() override {
    answer({unavailable, "another change of the pipeline took its place; push again"});
    if (counted_) pusher_.noteChange(-1);
  }

  std::future<PushAnswer> future() { return promise_.get_future(); }
  void begin() {
    counted_ = true;
    pusher_.noteChange(1);
  }
  void answer(PushAnswer answer) {
    if (!std::exchange(answered_, true)) promise_.set_value(std::move(answer));
  }

  bool takeEffect(NextPipeline& next) override {
    try {
      if (keeps_) mark_.entries = pusher_.entriesFor(*built_, mark_.number);
      const bool runs = keeps_ && pusher_.runsAlready(*built_);
      former_ = files().mark();
      files().markIs(mark_);
      if (!runs) {
        next.entries = mark_.entries;
        return true;
      }
      pusher_.peers_.tableInfoSm->givenIs(built_->given);
      TheParsingStatus()->pipelineFileIs(next.path);
      succeed();
    } catch (const PushRefused& refused) {
      answer({refused.code, refused.what()});
    } catch (const std::exception& e) {
      answer({internalError, fmt::format("the pipeline could not be kept: {}", e.what())});
    }
    return false;
  }
  void succeed() override {
    removeOthers(files());
    const auto& status = *pusher_.peers_.systemStatus;
    if (status.brokenInvariant()) {
      return answer({internalError, fmt::format("the pipeline runs, but the switch is critical: {}",
                                                status.criticalReason())});
    }
    answer({});
  }
  void fail(const std::string& why) override {
    std::string text = "the pipeline could not be brought up: " + why;
    try {
      former_ ? files().markIs(*former_) : files().markDel();
    } catch (const std::exception& e) {
      text += fmt::format("; and the former one could not be kept: {}", e.what());
    }
    answer({internalError, text + "; the former one comes up again"});
  }

 private:
  const PushedFiles& files() const { return pusher_.peers_.files; }

  PipelinePusher& pusher_;
  const std::shared_ptr<const Built> built_;
  PushMark mark_;
  const bool keeps_;
  std::optional<PushMark> former_;
  std::promise<PushAnswer> promise_;
  bool answered_ = false;
  bool counted_ = false;
};

// Back to the configured pipeline.
class PipelinePusher::Reset : public AwaitedChange {
 public:
  explicit Reset(PipelinePusher& pusher) : pusher_(pusher) { pusher_.noteChange(1); }
  ~Reset() override { pusher_.noteChange(-1); }
  bool takeEffect(NextPipeline&) override {
    try {
      pusher_.peers_.files.markDel();
      return true;
    } catch (const std::exception& e) {
      Vela::tellError("the pushed pipeline stays: {}", e.what());
      return false;
    }
  }
  void succeed() override { removeOthers(pusher_.peers_.files); }
  void fail(const std::string&) override {}  // the parsing status tells

 private:
  PipelinePusher& pusher_;
};

PipelinePusher::PipelinePusher(PusherPeers peers) : Entity("pipeline"), peers_(std::move(peers)) {
  removeOthers(peers_.files);  // of a push, or a reset, in which the former process was killed
  operationIs({"reset", {}, [this](const auto&) { return reset(); }});
  operationIs({"diff", {"file"}, [this](const auto& arguments) { return diff(arguments.at(0)); }});
}

PushAnswer PipelinePusher::push(int action, std::optional<std::string_view> config) {
  try {
    return doPush(action, config);
  } catch (const PushRefused& refused) {
    return {refused.code, refused.what()};
  } catch (const P4RuntimeParsingException& e) {
    return {invalidArgument, "the pipeline cannot run: " + textOf(e)};
  } catch (const std::exception& e) {
    return {internalError, fmt::format("the pipeline could not be taken: {}", e.what())};
  }
}

PushAnswer PipelinePusher::doPush(int action, std::optional<std::string_view> config) {
  const std::unique_lock alone(pushing_, patience);
  if (!alone) return {unavailable, "another pipeline is being pushed; try again"};
  std::shared_ptr<const Built> built;
  if (action == Request::COMMIT) {
    if (config) return {invalidArgument, "COMMIT takes no config; it commits the saved one"};
    if (!saved_) return {notFound, "no pipeline is saved; use VERIFY_AND_SAVE first"};
    built = saved_;
  } else {
    if (!config) return {invalidArgument, "the request has no config"};
    built = build(*config, action == Request::VERIFY || action == Request::RECONCILE_AND_COMMIT);
  }
  if (action == Request::VERIFY) return {0, reconcilingWouldRefuse(*built)};
  if (action == Request::VERIFY_AND_SAVE) {
    saved_ = std::move(built);
    return {};
  }
  PushAnswer answer = commit(built, action == Request::RECONCILE_AND_COMMIT);
  if (answer.code == 0) saved_ = nullptr;
  return answer;
}

// On the thread of the call: a large program takes a moment.
std::shared_ptr<const PipelinePusher::Built> PipelinePusher::build(std::string_view bytes,
                                                                   bool keepsEntries) const {
  auto built = std::make_shared<Built>();
  built->given = bytes;
  if (!built->config.ParseFromString(built->given)) {
    throw PushRefused(invalidArgument, "the config is no p4.v1.ForwardingPipelineConfig");
  }
  if (!built->config.has_p4info()) throw PushRefused(invalidArgument, "the config has no p4info");
  uint32_t deviceId = 0;
  bool isStrict = false;
  bool isExecuted = false;
  Request running;
  {
    const Vela::ActivityLock lock;
    deviceId = peers_.systemConfig->deviceId();
    isStrict = peers_.agentConfig->strictPushes();
    isExecuted = peers_.agentConfig->checkPrograms();
    if (keepsEntries) running.ParseFromString(peers_.tableInfo->pipelineRequest());
  }
  Pipeline::Findings findings;
  const auto request =
      Pipeline::pipelineOfPush(built->config, deviceId, &findings, Pipeline::tableNamesOf(running));
  if (!request) {
    throw PushRefused(invalidArgument,
                      "the pipeline cannot run: " + textOf(findings, Pipeline::Severity::error));
  }
  if (isStrict) requireWhole(findings, *request);
  built->program = Pipeline::compiledProgramOf(built->config.p4_device_config());
  if (isExecuted) requireExecutable(built->config.p4_device_config(), built->program);
  built->next = P4TableInfoSm::checkedPipeline("", *request);
  built->next.given = built->given;
  built->names = namesOf(built->config.p4info(), built->next.deviceJson);
  return built;
}

PushAnswer PipelinePusher::commit(const std::shared_ptr<const Built>& built, bool keepsEntries) {
  uint64_t number = 0;
  {
    const Vela::ActivityLock lock;
    if (PushAnswer refused = obstacle(); refused.code != 0) return refused;
    const auto mark = peers_.files.mark();
    number = std::max(mark ? mark->number : 0, peers_.tableImpl->pushOfEntries()) + 1;
  }
  const PushMark mark{number, number};
  peers_.files.write(mark, {built->next.request, built->given, built->program, built->names});
  auto change = std::make_shared<Change>(*this, built, number, keepsEntries);
  std::future<PushAnswer> answered = change->future();
  NextPipeline next = built->next;
  next.path = peers_.files.pipelinePath(mark);
  next.awaited = change;
  peers_.loop.post([this, next = std::move(next), change = std::move(change)]() mutable {
    if (PushAnswer refused = obstacle(); refused.code != 0) return change->answer(refused);
    change->begin();
    change = nullptr;
    peers_.tableInfoSm->pipelineIs(std::move(next));
  });
  if (answered.wait_for(patience) != std::future_status::ready) {
    return {unavailable,
            "the pipeline is still coming up; GetForwardingPipelineConfig returns it once it runs"};
  }
  PushAnswer answer = answered.get();
  return answer.code == 0 ? executedBy(number) : answer;
}

// Forwarding agents that execute programs have taken this one, or say why they cannot.
PushAnswer PipelinePusher::executedBy(uint64_t push) const {
  const PlaneAnswer asked = peers_.plane.ask({.push = push}, executionPatience);
  if (asked.kind == PlaneAnswer::Kind::late) {
    return {unavailable,
            "the pipeline runs, but the forwarding plane has not said yet that it executes it"};
  }
  if (asked.kind == PlaneAnswer::Kind::nobody || asked.answer.errorCode == 0) return {};
  return {internalError,
          "the pipeline runs, but the forwarding plane does not execute it: " + asked.answer.bytes};
}

// Call with the activity lock held. Code 0: nothing is in the way of a change.
PushAnswer PipelinePusher::obstacle() const {
  if (!peers_.systemConfig->enabled()) return {unavailable, "the agent is disabled"};
  const auto& status = *peers_.systemStatus;
  if (status.critical() || status.brokenInvariant()) {
    return {failedPrecondition,
            "the pipeline cannot change while the switch is in critical state: " +
                status.criticalReason()};
  }
  return {};
}

// The push that the entries of a reconciled pipeline belong to. Throws PushRefused when they cannot
// stay.
uint64_t PipelinePusher::entriesFor(const Built& built, uint64_t number) const {
  if (!runsAlready(built)) {
    if (peers_.tableImpl->hasNoEntries()) return number;
    requireSameMeaning(built);
  }
  return peers_.tableImpl->pushOfEntries();
}

void PipelinePusher::requireSameMeaning(const Built& built) const {
  Request next;
  if (!next.ParseFromString(built.next.request)) {
    throw PushRefused(internalError, "the pipeline cannot be compared with the running one");
  }
  const std::vector<std::string> lines = obstacles(next);
  if (lines.empty()) return;
  throw PushRefused(invalidArgument,
                    fmt::format("entries of the running pipeline have no place in this one; delete "
                                "them first, or use VERIFY_AND_COMMIT, which starts without "
                                "entries: {}",
                                fmt::join(lines, "; ")));
}

// For the controller that verifies; empty: it would refuse nothing.
std::string PipelinePusher::reconcilingWouldRefuse(const Built& built) const {
  const Vela::ActivityLock lock;
  if (runsAlready(built) || peers_.tableImpl->hasNoEntries()) return "";
  Request next;
  if (!next.ParseFromString(built.next.request)) return "";
  return fmt::format("{}", fmt::join(obstacles(next), "; "));
}

// What keeps the entries of the running pipeline from going over to the next one.
std::vector<std::string> PipelinePusher::obstacles(const Request& next) const {
  Request running;
  if (!running.ParseFromString(peers_.tableInfo->pipelineRequest())) return {};
  return Pipeline::obstaclesToEntries(running, next, entryCounts());
}

std::string PipelinePusher::diff(const std::string& path) const {
  try {
    Request next;
    Pipeline::readPipelineFile(path, &next);
    P4TableInfoSm::checkedPipeline(path, next);
    const std::vector<std::string> lines = obstacles(next);
    if (lines.empty()) return "all entries of the running pipeline have their place in " + path;
    return fmt::format("{}", fmt::join(lines, "\n"));
  } catch (const P4RuntimeParsingException& e) {
    throw Vela::BadValue(path + " cannot run: " + textOf(e));
  } catch (const Pipeline::PipelineError& e) {
    throw Vela::BadValue(e.what());
  }
}

Pipeline::EntryCounts PipelinePusher::entryCounts() const {
  Pipeline::EntryCounts counts;
  for (const auto& [rid, table] : peers_.tableInfo->latticeTableInterfaceCollection().values()) {
    if (rid.type == tableResource && table->ready()) counts[refOf(rid)] = table->rowCount();
    const auto count = [&counts](Pipeline::TableKind kind, const auto* cache, ResourceId of) {
      if (!cache) return;
      cache->forEachOf(of, [&](auto, auto) { return ++counts[{kind, of.id}], true; });
    };
    if (rid.type == actionProfileResource) {
      count(Pipeline::TableKind::member, peers_.tableImpl->memberCache(), rid);
    } else if (rid.type == groupTableResource) {
      count(Pipeline::TableKind::group, peers_.tableImpl->groupCache(), rid);
    }
  }
  return counts;
}

// Whether P4Info and device configuration are those of the running pipeline, byte for byte.
bool PipelinePusher::runsAlready(const Built& built) const {
  if (peers_.tableInfo->tableInfoState() != P4TableInfoState::tableInfoReady) return false;
  Config running;
  const std::string& given = peers_.tableInfoSm->given();
  if (!given.empty()) {
    if (!running.ParseFromString(given)) return false;
  } else {
    Request request;
    if (!request.ParseFromString(peers_.tableInfo->pipelineRequest())) return false;
    running = request.config();
  }
  return running.p4_device_config() == built.config.p4_device_config() &&
         MessageDifferencer::Equals(running.p4info(), built.config.p4info());
}

// Controllers' calls wait as long as any change is on its way.
void PipelinePusher::noteChange(int step) {
  changes_ += step;
  pi::fe::proto::DeviceMgr::set_pipeline_changing(changes_ > 0);
}

std::string PipelinePusher::given() const {
  const Vela::ActivityLock lock;
  return peers_.tableInfoSm->given();
}

std::string PipelinePusher::reset() {
  bool isPushed = true;
  try {
    isPushed = peers_.files.mark().has_value();
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "reset", " ", e.what());
  }
  if (!isPushed) return "the configured pipeline is in force already; no controller has pushed one";
  try {
    NextPipeline next = peers_.tableInfoSm->configuredPipeline();
    const std::string path = next.path;
    next.awaited = std::make_shared<Reset>(*this);
    peers_.tableInfoSm->pipelineIs(std::move(next));
    return "going back to " + path;
  } catch (const P4RuntimeParsingException& e) {
    throw Vela::BadValue("the pushed pipeline stays, since the configured one cannot run: " +
                         textOf(e));
  }
}

}  // namespace P4Runtime
