// The agent from the PI entry points down to its store, without process, server and sockets: the
// ground of the stories in tests of P4Runtime/.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "P4Runtime/pi/KorvelPiImpl.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "P4Runtime/table/TableImpl.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"
#include "p4/v1/p4runtime.pb.h"
#include "platform/lattice/TableWatch.h"
#include "platform/pollen/QueryConfigSm.h"
#include "platform/pollen/TypeService.h"
#include "tests/P4Runtime/support/FakeForwarder.h"
#include "tests/P4Runtime/support/SmallPipeline.h"
#include "tests/support/TempDir.h"

namespace TestSupport {

// A table entry as the PI library hands it over: bytes in PI encoding.
struct Entry {
  uint32_t table = 0;
  std::string key;
  uint32_t action = 0;
  std::string data;
  uint32_t priority = 0;
  uint64_t controllerMetadata = 0;
  std::string metadata;
  uint64_t indirectHandle = 0;  // in place of an action, unless 0
  const pi_direct_res_config_t* direct = nullptr;
};

// "08 00|07" -> bytes; anything but hexadecimal digits is for the reader's eyes.
std::string bytes(std::string_view text);
std::string prefix(std::string_view address, uint32_t length);  // a longest-prefix field

Entry exactEntry(uint8_t id, uint16_t port = 1);  // of the table "exact"

// A front end that takes back the entries that survived a restart.
struct FakeFrontEnd {
  struct Restored {
    uint32_t table = 0;
    std::string key;
    uint32_t action = 0;
    std::string data;
    uint32_t priority = 0;
    uint64_t handle = 0;
    uint64_t controllerMetadata = 0;
    std::string metadata;
    uint64_t indirectHandle = 0;
    std::optional<pi_meter_spec_t> meter;
  };
  // A member or group; the action's data, or the members' handles, in `data`.
  struct RestoredObject {
    uint32_t id = 0;  // the controller's
    uint64_t handle = 0;
    std::string data;
    std::string metadata;
    friend bool operator==(const RestoredObject&, const RestoredObject&) = default;
  };
  std::vector<Restored> restored;
  std::vector<RestoredObject> members;
  std::vector<RestoredObject> groups;
  bool restoreDone = false;
  std::vector<uint32_t> kept;  // tables whose entries it keeps from the former pipeline
  pi_status_t refusal = PI_STATUS_SUCCESS;             // of each object
  pi_status_t entryRefusal = PI_STATUS_SUCCESS;        // of entries alone
  std::vector<std::pair<uint64_t, uint32_t>> settled;  // handle and error code
  std::function<void()> onSettled;                     // in the midst of settling a batch
};

// Builds on the contents of its directory; brings up no pipeline of its own. One at a time. It runs
// on no other thread, and no lock is held between calls, so that the writes of a call are committed
// when it returns.
class AgentParts : Lattice::CommitObserver {
 public:
  explicit AgentParts(const std::string& directory);
  // The next commits that change a row of "exact" fail, as if derived rows had no room. Call
  // outside a batch.
  void failCommits(int count = 1);
  // Writes until nothing more fits, however little; slots that were free before stay so.
  void fillStore();
  ~AgentParts() override;

  // Writes the pipeline file and lets the agent read it; turns the reactor until it is done.
  void pipelineIs(const p4::v1::SetForwardingPipelineConfigRequest& request,
                  const std::string& fileName = "pipeline.pb.bin");
  void settle();  // turns the reactor until nothing more can happen

  pi_status_t begin();
  void end();
  pi_status_t add(uint32_t offset, const Entry& entry);  // the handle stands in lastHandle
  pi_status_t del(uint32_t offset, const Entry& entry);
  // What follows is part of the update at the offset, which may consist of several calls; the
  // controller's id is 0 for a hidden member or group.
  void updateIs(uint32_t offset, uint32_t controllerId = 0, std::string_view metadata = {});
  // What is left in the status vector of the batch's updates.
  P4Runtime::StatusVector outcome();
  // A batch of its own for each, programmed and settled. program() returns the handle; 0: it
  // failed.
  uint64_t program(const Entry& entry);
  void remove(const Entry& entry);

  const std::string* row(const std::string& table);  // the only row's value; null when none
  size_t rowCount(uint32_t table);
  std::optional<P4Runtime::TableCacheEntry> record(uint32_t table, uint64_t handle);
  // Writes the bytes in place of the record of an entry that stands.
  void recordBytesAre(const Entry& entry, std::string_view bytes);
  size_t recordCount();    // of entries, whether or not the pipeline has their tables
  size_t metadataCount();  // entries, members and groups whose metadata are kept
  uint64_t handleOf(const Entry& entry);
  uint64_t lastSequence();  // of the changes that forwarding agents hear of

  const std::string directory;
  Vela::ReactorLoop loop;
  std::unique_ptr<Brine::Store> store;
  std::unique_ptr<Lattice::Database> database;
  Vela::Ptr<P4RuntimeConfig::P4RtSystemConfig> config;
  Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> status;
  Vela::Ptr<P4Runtime::P4HandleMgr> handles;
  Vela::Ptr<P4Runtime::BatchStatus> batchStatus;
  Vela::Ptr<P4Runtime::P4TableInfo> tableInfo;
  Vela::Ptr<P4Runtime::TableImpl> tableImpl;
  P4Runtime::PipelineServices services;
  Vela::Ptr<Pollen::TypeService> typeService;
  P4Runtime::P4ControllerPktMetadata::Ptr controllerPktMetadata;
  Vela::Ptr<P4Runtime::P4TableInfoSm> tableInfoSm;
  Vela::Ptr<Pollen::QueryConfigSm> queryConfigSm;
  std::unique_ptr<FakeForwarder> forwarder;
  FakeFrontEnd frontEnd;
  uint64_t lastHandle = 0;

 private:
  void doBuild();
  void onBeforeCommit() override;
  void onCommitted() override {}
  void onDiscarded() override {}
  void onBatchEnded() override {}
  void onWatchedTableGone(const std::string&) override {}
  std::unique_ptr<Lattice::TableWatch> watch_;
  int failures_ = 0;  // commits to come that fail
  int notifyFd_ = -1;
  std::vector<uint32_t> offsets_;  // of the batch's updates
};

}  // namespace TestSupport

namespace p4::v1 {
void PrintTo(const Error& error, std::ostream* out);
}
