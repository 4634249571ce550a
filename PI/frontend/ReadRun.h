// Carries out one Read: collects what the queries ask for as of one instant, then sends it.
#pragma once

#include <map>
#include <span>
#include <vector>

#include "PI/frontend/EntitySender.h"
#include "PI/frontend/EntryStore.h"
#include "PI/frontend/Query.h"
#include "PI/frontend/TargetSession.h"
#include "PI/frontends/proto/device_mgr.h"
#include "google/rpc/status.pb.h"

namespace pi::fe::proto {

// For one Read, on the thread that answers it, without a lock. Never waits for a Write: the keys
// that one is about to change read as they were before it.
class ReadRun {
 public:
  ReadRun(const P4InfoIndex& index, EntryStore& store, const TargetSession& session)
      : index_(index), store_(store), session_(session) {}

  google::rpc::Status run(const p4::v1::ReadRequest& request, const DeviceMgr::ReadSink& sink);

 private:
  // Queries on one table share a walk through it.
  struct TableRead {
    const TablePlan* table = nullptr;
    std::vector<size_t> queries;
    std::vector<EntryPtr> entries;
  };

  // The members or groups that a query found.
  struct ObjectRead {
    size_t query = 0;
    std::vector<EntryPtr> objects;
  };

  void doCheck(const p4::v1::ReadRequest& request);
  void doPlan(size_t query);
  void tableQueryIs(const TablePlan& table, size_t query);
  void doCollect();
  void doCollectTable(const EntryStore::Snapshot& snapshot, TableRead* read) const;
  void doCollectOne(const EntryStore::Snapshot& snapshot, size_t query);
  void doCollectObjects(const EntryStore::Snapshot& snapshot, ObjectRead* read);
  void requireResolved(const TablePlan& table, const Entry& entry) const;
  bool sent(const DeviceMgr::ReadSink& sink);
  bool entrySent(EntitySender* sender, const TablePlan& table, const Entry& entry,
                 std::span<const size_t> queries);
  bool formSent(EntitySender* sender, const TablePlan& table, const Entry& entry, EntryForm form,
                std::span<const size_t> queries);
  bool takenByAny(const TableRead& read, const Entry& entry) const;
  void doFail(size_t query, int code, const std::string& message);

  const P4InfoIndex& index_;
  EntryStore& store_;
  const TargetSession session_;
  std::vector<Query> queries_;
  std::vector<p4::v1::Error> errors_;     // one a query
  std::map<uint32_t, TableRead> tables_;  // by table id
  std::vector<const TablePlan*> defaults_;
  std::vector<size_t> oneEntry_;  // queries
  std::vector<EntryPtr> single_;  // what they found
  std::vector<ObjectRead> objects_;
};

}  // namespace pi::fe::proto
