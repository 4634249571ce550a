// Carries out one Read: takes a snapshot of the store, and sends the entities that the queries
// want.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <map>
#include <span>
#include <vector>

#include "PI/frontend/read/DirectCounters.h"
#include "PI/frontend/read/EntitySender.h"
#include "PI/frontend/read/IdleTimeouts.h"
#include "PI/frontend/read/LastHits.h"
#include "PI/frontend/read/Query.h"
#include "PI/frontend/read/ReadTurns.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/frontends/proto/device_mgr.h"
#include "google/rpc/status.pb.h"

namespace pi::fe::proto {

// For one Read, on its thread, without a lock. Waits for the client, and for a turn when it walks
// through tables; it asks the target for counts and last hits alone. Equal queries share one
// result. A query for all objects returns the objects that the caller may read.
class ReadRun {
 public:
  ReadRun(const P4InfoIndex& index, EntryStore& store, const TargetSession& session,
          ReadTurns& turns, const EntityRights* rights = nullptr)
      : index_(index), store_(store), session_(session), turns_(turns), rights_(rights) {}

  // Nothing when another pipeline has taken the store over, before anything was sent.
  std::optional<google::rpc::Status> run(const p4::v1::ReadRequest& request,
                                         const DeviceMgr::ReadSink& sink);

 private:
  using Queries = std::vector<size_t>;

  // Queries on one table share a walk through it.
  struct TableRead {
    const TablePlan* table = nullptr;
    Queries ofAnyKey;
    absl::flat_hash_map<std::string_view, Queries> ofOneKey;  // of any priority
    bool sent = false;
    std::optional<int> noHits = std::nullopt;  // the code with which nothing is told of last hits
  };
  struct Picked {
    const Entry* entry = nullptr;
    uint32_t forms = 0;  // a bit for each EntryForm
  };

  void doCheck(const p4::v1::ReadRequest& request);
  void doPlan(size_t query);
  bool mayReadTable(const TablePlan& table) const;
  TableRead& tableRead(const TablePlan& table);
  std::vector<EntryLookup> lookups() const;
  void doCheckFound(const EntryStore::Snapshot& snapshot);
  bool sendAll(const EntryStore::Snapshot& snapshot, const DeviceMgr::ReadSink& sink);
  bool sendResult(const EntryStore::Snapshot& snapshot, size_t query, EntitySender* sender);
  bool sendFound(size_t number, const EntryPtr& found, EntitySender* sender);
  bool sendDefaults(const EntryStore::Snapshot& snapshot, size_t query, EntitySender* sender);
  bool sendDefault(size_t query, const TablePlan& table, const Entry* written,
                   EntitySender* sender);
  bool sendObjects(const EntryStore::Snapshot& snapshot, const Query& query, EntitySender* sender);
  bool sendTable(const EntryStore::Snapshot& snapshot, TableRead* read, EntitySender* sender);
  template <typename Visit>
  void forEachTaking(const TableRead& read, const Entry& entry, Visit visit) const;
  bool wantsLastHits(const TableRead& read) const;
  std::optional<EntryForm> formIn(const TableRead& read, size_t query) const;
  void maybePick(const TableRead& read, const Entry& entry);
  void askCounts(const TableRead& read);
  void askLastHits(TableRead* read);
  void handleNoHits(TableRead* read, const Refusal& refusal);
  bool sendPicked(TableRead* read, EntitySender* sender);
  bool sendForm(const TableRead& read, const Entry& entry, EntryForm form, const Count* count,
                std::optional<int64_t> sinceLastHit, EntitySender* sender);
  void doFail(size_t query, int code, const std::string& message);
  void doCopyErrors();

  const P4InfoIndex& index_;
  EntryStore& store_;
  const TargetSession session_;
  ReadTurns& turns_;
  const EntityRights* const rights_;  // of the caller; null: it may read all
  bool walks_ = false;                // through whole tables or profiles
  bool countsWanted_ = false;
  std::vector<Query> queries_;
  Queries firstEqual_;                           // of each query, the first that is equal to it
  std::vector<p4::v1::Error> errors_;            // one a query
  std::map<uint32_t, TableRead> tables_;         // by table id
  Queries keyed_;                                // those for one entry, member or group
  absl::flat_hash_map<size_t, size_t> foundAt_;  // of those, the place in Snapshot::found()
  std::optional<IdleTimeouts> idleTimeouts_;     // while it runs
  std::vector<Picked> picked_;                   // of one page, or some
  std::vector<const Entry*> counted_;            // of these, the entries whose counts are sent
  std::vector<Count> counts_;                    // of those
  std::vector<const Entry*> timed_;              // likewise, those whose last hits are sent
  std::vector<std::optional<int64_t>> times_;    // of those
};

}  // namespace pi::fe::proto
