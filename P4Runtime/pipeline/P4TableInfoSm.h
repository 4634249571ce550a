// Turns the pipeline configuration file into the model of the pipeline and brings up the parts of
// the write path: table types, interfaces, row constructors and queries.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/NextPipeline.h"
#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/pipeline/PushedFiles.h"
#include "pipeline/PipelineCheck.h"
#include "platform/lattice/Database.h"
#include "platform/pollen/entities/QueryConfig.h"
#include "platform/pollen/entities/QueryStatus.h"
#include "platform/pollen/entities/TypeConfig.h"
#include "platform/pollen/entities/TypeStatus.h"
#include "platform/vela/Entity.h"
#include "platform/vela/Json.h"

namespace p4::v1 {
class SetForwardingPipelineConfigRequest;
}

namespace P4Runtime {

class FormerEntries;

// The services that the state machine drives; all outlive it.
struct PipelineServices {
  Vela::Ptr<Pollen::TypeConfigDir> typeConfigDir;
  Vela::Ptr<Pollen::TypeStatusDir> typeStatusDir;
  Vela::Ptr<Pollen::QueryConfigDir> queryConfigDir;
  Vela::Ptr<Pollen::QueryStatusDir> queryStatusDir;
  Lattice::Database* tables = nullptr;
  // Of pushes; null: there are none. Outlives the state machine.
  const PushedFiles* pushed = nullptr;
  FormerEntries* entries = nullptr;  // null: there are none
};

// Where the running pipeline is written for people to read.
struct PipelineFiles {
  std::string p4InfoJsonPath;
  std::string deviceJsonPath;
};

// Progress comes from the services' notices and the interfaces' ready callbacks.
// Threads: the reactor, with the activity lock held. Lifetime: shares all that it is given.
// Errors: every failure is a P4RuntimeParsingException that ends with its handler. The model then
// stays incomplete and is not ready.
class P4TableInfoSm : public Vela::Entity {
 public:
  P4TableInfoSm(Vela::Ptr<P4TableInfo> tableInfo,
                P4ControllerPktMetadata::Ptr controllerPktMetadata,
                Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
                PipelineServices services, PipelineFiles files);
  const char* typeName() const override { return "P4Runtime::P4TableInfoSm"; }

  VELA_READONLY_ATTRIBUTE(bool, bitwidthsInitialized, false)
  VELA_READONLY_ATTRIBUTE(bool, allTypesCompiled, false)
  VELA_READONLY_ATTRIBUTE(bool, allArInterfacesCreated, false)
  VELA_COLLECTION(ResourceId, bool, arInterfaceReady)
  VELA_READONLY_ATTRIBUTE(bool, allArInterfacesReady, false)
  VELA_READONLY_ATTRIBUTE(bool, allQueriesReceived, false)
  VELA_READONLY_ATTRIBUTE(bool, allQueriesCompiled, false)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)

 public:
  // The system configuration names another pipeline file, or the agent starts. A file that cannot
  // be used leaves the running pipeline alone; one that can takes its place once the batch in
  // progress is settled.
  void handlePipelineConfigFile();
  // Takes the place of the running one, once the batch in progress is settled.
  void pipelineIs(NextPipeline next);
  // The server has the running pipeline and its entries.
  void handleServed();
  // The running pipeline as a controller pushed it; empty: by configuration.
  const std::string& given() const { return given_; }
  void givenIs(std::string bytes) { given_ = std::move(bytes); }
  // The file of the configuration, whatever runs.
  NextPipeline configuredPipeline() const;
  // Checks a pipeline; `path` is where its file stands. Any thread, without the lock. Throws
  // P4RuntimeParsingException.
  static NextPipeline checkedPipeline(const std::string& path,
                                      const p4::v1::SetForwardingPipelineConfigRequest& request);
  void handleP4InfoStr(const std::string& p4InfoJson);
  void handlePipelineConfigStr(const std::string& deviceConfigJson);

  void createLatticeTableTypes();
  void handleTypeCompileStatus();
  void handleAllTypesCompiled();
  void createLatticeTableInterfaces();
  void onArInterfaceReady(ResourceId tableId);
  void maybeUpdateAllArInterfacesReady();
  void createRowConstructors();
  void createLatticeQueries();
  void handleQueryCompileStatus();
  void handleAllQueriesReceived();
  void handleAllQueriesCompiled();
  // Lets the pipeline go, but for rows and records, once the batch in progress is settled, then
  // copies the request's number into the response. The pipeline comes up again when the agent is
  // enabled.
  void handleCleanupRequest();
  void handleEnabled();
  const P4ControllerPktMetadata& controllerPktMetadata() const { return *controllerPktMetadata_; }
  // Makes the table that an active query's rows go to; rows of an earlier process stay in it.
  Vela::Ptr<Lattice::ArTableInterface> queryOutputIs(const std::string& path,
                                                     const std::string& typeName);

 private:
  void handleInitialized();
  void handleAllArInterfacesReady();
  // Runs `step`; a parsing failure, or one of the store, ends with the handler of the former.
  template <typename Step>
  void runGuarded(Step step) {
    try {
      step();
      return;
    } catch (const P4RuntimeParsingException& e) {
      P4RuntimeParsingException::handleException(e);
    } catch (const std::exception& e) {
      P4RuntimeParsingException::handleException(
          {e.what(), "the pipeline could not be brought up", {}});
    }
    handleFailure();
  }

  NextPipeline readPipelineConfigFile(const std::string& path) const;
  NextPipeline readPipelineInForce() const;
  bool awaitsFirst() const;
  void handleConfiguredPath();
  void handleFailure();
  void doChange();
  void doBringUp(const NextPipeline& next);
  void doForgetPipeline();
  void doCleanUp();
  bool maybeBringUpPipeline();

  void parseP4InfoActions(const cJSON* p4Info);
  void parseP4InfoDirectResources(const cJSON* p4Info);
  void parseP4InfoTables(const cJSON* p4Info);
  void parseDefaultEntry(const cJSON* table);
  void parseDirectResourcesOf(const cJSON* table, const ResourceId& rid);
  void parseP4InfoActionProfiles(const cJSON* p4Info);
  void parseP4InfoPktMetadata(const cJSON* p4Info);

  void createTableInterface(const cJSON* table);
  void createRowConstructor(const cJSON* table);
  void createQueryOutput(const cJSON* query);
  void createQuery(const cJSON* query);
  void doRefuse();
  void watchTypeStatus(const std::string& name);
  void watchQueryStatus(const std::string& name);

  const Vela::Ptr<P4TableInfo> tableInfo_;
  const P4ControllerPktMetadata::Ptr controllerPktMetadata_;
  const Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig_;
  const PipelineServices services_;
  const PipelineFiles files_;

  Vela::Json jsonRootToDelete_;      // the device configuration, until the model is ready
  const cJSON* jsonRoot_ = nullptr;  // its "p4rtc" object
  Pipeline::Refused refused_;        // of that configuration
  Pipeline::Extensions extensions_;  // that the pipeline asks for
  std::string given_;
  std::shared_ptr<AwaitedChange> awaited_;  // of the pipeline that is coming up
  std::optional<uint64_t> push_;  // of that pipeline, when the entries of others go for it
  uint32_t generation_ = 0;       // of pipelines; callbacks of former ones are ignored

  std::map<std::string, Vela::Ptr<Lattice::ArTableInterface>> queryOutputs_;
  std::map<std::string, Vela::Observation> typeStatusChanges_;
  std::map<std::string, Vela::Observation> queryStatusChanges_;
  std::vector<Vela::Observation> changes_;
  std::optional<NextPipeline> next_;
  bool cleanupRequested_ = false;
  WriteGate::Closer change_{"the pipeline is changing"};
};

// Throws a P4RuntimeParsingException of `what` and `detail`, with the text at which cJSON stopped.
[[noreturn]] void throwParsingException(const std::string& what, const std::string& detail = {});

Vela::Ptr<P4TableInfoSm> p4TableInfoSmFactory(
    Vela::Ptr<P4TableInfo> tableInfo, P4ControllerPktMetadata::Ptr controllerPktMetadata,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig, PipelineServices services,
    PipelineFiles files);

}  // namespace P4Runtime
