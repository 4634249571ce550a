// Brings pipelines up that controllers push, and goes back to the configured one.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/ForwardingPlane.h"
#include "P4Runtime/pi/PipelinePushes.h"
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "P4Runtime/pipeline/PushedFiles.h"
#include "P4Runtime/table/TableImpl.h"
#include "pipeline/CarryOver.h"
#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"

namespace P4Runtime {

// All outlive the pusher.
struct PusherPeers {
  Vela::ReactorLoop& loop;
  const PushedFiles& files;
  ForwardingPlane& plane;
  Vela::Ptr<P4TableInfoSm> tableInfoSm;
  Vela::Ptr<P4TableInfo> tableInfo;
  Vela::Ptr<TableImpl> tableImpl;
  Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig;
  Vela::Ptr<const AgentConfig> agentConfig;
  Vela::Ptr<const P4RuntimeConfig::P4RtSystemStatus> systemStatus;
};

// At "p4runtime/pipeline". Builds and checks on the thread of the call; only what changes the
// running pipeline runs on the reactor. One push at a time.
class PipelinePusher : public Vela::Entity, public PipelinePushes {
 public:
  explicit PipelinePusher(PusherPeers peers);
  const char* typeName() const override { return "P4Runtime::PipelinePusher"; }

  PushAnswer push(int action, std::optional<std::string_view> config) override;
  std::string given() const override;

 private:
  class Change;
  class Reset;
  struct Built;

  PushAnswer doPush(int action, std::optional<std::string_view> config);
  std::shared_ptr<const Built> build(std::string_view config, bool keepsEntries) const;
  PushAnswer commit(const std::shared_ptr<const Built>& built, bool keepsEntries);
  PushAnswer executedBy(uint64_t push) const;
  PushAnswer obstacle() const;
  uint64_t entriesFor(const Built& built, uint64_t number) const;
  bool runsAlready(const Built& built) const;
  void requireSameMeaning(const Built& built) const;
  std::string reconcilingWouldRefuse(const Built& built) const;
  std::vector<std::string> obstacles(const p4::v1::SetForwardingPipelineConfigRequest& next) const;
  Pipeline::EntryCounts entryCounts() const;
  std::string diff(const std::string& path) const;
  void noteChange(int step);
  std::string reset();

  const PusherPeers peers_;
  std::timed_mutex pushing_;  // guards saved_; one push at a time
  std::shared_ptr<const Built> saved_;
  int changes_ = 0;  // that controllers wait for
};

}  // namespace P4Runtime
