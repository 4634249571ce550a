// Ties the P4Runtime server to the readiness of the pipeline: starts the server, sets its
// permission level, has the pipeline pushed, restores entries, and moves it to another port.
#pragma once

#include <chrono>
#include <functional>

#include "P4Runtime/agent/KorvelPiServer.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/restore/RestoreSlice.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Threads: the reactor, with the activity lock held.
// Errors: a missing server and an unknown state break an invariant, which ends in the critical
// state; so does a store that takes no constant entries. Nothing is thrown to the caller.
// Lifetime: shares all that it is given, and observes it until it is replaced or this goes.
class KorvelPiServerInitSm : public Vela::Entity {
 public:
  KorvelPiServerInitSm(Vela::Ptr<P4TableInfo> tableInfo,
                       Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
                       Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus,
                       Vela::Ptr<KorvelPiServer> server, Vela::Ptr<TableImpl> tableImpl);
  const char* typeName() const override { return "P4Runtime::KorvelPiServerInitSm"; }

  // A new entity in one of these is observed in place of the former.
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4TableInfo>, tableInfo, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig>, p4RtSystemConfig,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus>, p4RtSystemStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<KorvelPiServer>, server, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<TableImpl>, tableImpl, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)
  VELA_READONLY_ATTRIBUTE(uint32_t, installs, 0)  // pipelines that were served with their entries

 public:
  // How much of a restore is done in one turn of the reactor; others are served in between.
  void restoreSliceIs(const RestoreSlice& slice) { slice_ = slice; }
  // Called once the entries are back, before controllers get in.
  void beforeServingIs(std::function<void()> call) { beforeServing_ = std::move(call); }
  void handleInitialized();
  void doSpawnServerThread();
  void handleTableInfoState();
  void handleServerReady();
  void handleRestoreRequests();
  void programConstantTables();
  void doKillPiServerThread();

 private:
  void observeReferences();
  void doApplyTableInfoState();
  void doPushPipeline();
  void maybeSignal();
  void doBeginRestore();
  void doAdvanceRestore(const RestoreSlice& slice);
  bool maybeFinishRestore(const RestoreSlice& slice);
  void doPostRestoreTurn();
  void doMoveServer();
  void programConstantEntry(uint32_t tableId, const P4TableInfoConstEntry& entry);

  Vela::Observation tableInfoChange_;
  Vela::Observation configChange_;
  Vela::Observation serverChange_;
  Vela::Observation restoreRequest_;
  std::vector<Vela::Observation> references_;
  // Short, since `korvel status` makes some fifteen requests, and each may wait for a slice.
  RestoreSlice slice_ = RestoreSlice::ofTime(std::chrono::milliseconds(3));
  bool turnIsPosted_ = false;
  std::function<void()> beforeServing_;
  WriteGate::Closer noPipeline_{"no pipeline is ready"};
  WriteGate::Closer push_{"a pipeline takes the place of another"};
  WriteGate::Closer move_{"the server is moving to another address"};
};

Vela::Ptr<KorvelPiServerInitSm> korvelPiServerInitSmFactory(
    Vela::Ptr<P4TableInfo> tableInfo,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus, Vela::Ptr<KorvelPiServer> server,
    Vela::Ptr<TableImpl> tableImpl);

}  // namespace P4Runtime
