// Carries out one Read.
#include "PI/frontend/ReadRun.h"

#include <algorithm>

#include "PI/frontend/EntitySender.h"
#include "PI/frontend/FetchedTable.h"
#include "PI/frontend/Refusal.h"
#include "PI/frontend/StatusText.h"

namespace pi::fe::proto {

namespace {
constexpr size_t kChunk = 256;  // entries looked up under one hold of the store's lock
}

google::rpc::Status ReadRun::run(const p4::v1::ReadRequest& request,
                                 const DeviceMgr::ReadSink& sink) {
  doCheck(request);
  doCollect();
  if (!sent(sink)) return plainStatus(code::cancelled, "the client takes no more of the answer");
  return itemisedStatus(&errors_, "queries");
}

void ReadRun::doCheck(const p4::v1::ReadRequest& request) {
  queries_.resize(request.entities_size());
  errors_.resize(request.entities_size());
  for (size_t query = 0; query < queries_.size(); ++query) {
    try {
      queries_[query] = checkedQuery(index_, request.entities(static_cast<int>(query)));
      doPlan(query);
    } catch (const Refusal& refusal) {
      doFail(query, refusal.code(), refusal.message());
    }
  }
}

void ReadRun::doPlan(size_t query) {
  const Query& planned = queries_[query];
  switch (planned.kind) {
    case Query::Kind::allTables:
      for (const auto& table : index_.tables()) {
        if (table->unsupported.empty()) tableQueryIs(*table, query);
      }
      break;
    case Query::Kind::table:
      tableQueryIs(*planned.table, query);
      break;
    case Query::Kind::oneEntry:
      oneEntry_.push_back(query);
      break;
    case Query::Kind::defaultEntry:
      defaults_.push_back(planned.table);
      break;
  }
}

void ReadRun::tableQueryIs(const TablePlan& table, size_t query) {
  TableRead& read = tables_[table.id];
  read.table = &table;
  read.queries.push_back(query);
}

void ReadRun::doCollect() {
  const EntryStore::Snapshot snapshot(store_);
  for (const size_t query : oneEntry_)
    single_.push_back(snapshot.entry(queries_[query].key->key()));
  for (auto& [tableId, read] : tables_) {
    try {
      doCollectTable(snapshot, &read);
    } catch (const Refusal& refusal) {
      read.entries.clear();
      for (const size_t query : read.queries) doFail(query, refusal.code(), refusal.message());
    }
  }
}

void ReadRun::doCollectTable(const EntryStore::Snapshot& snapshot, TableRead* read) const {
  FetchedTable fetched(session_, *read->table);
  const EntryStore::Snapshot::Touched touched = snapshot.touchedSince(read->table->id);
  std::vector<EntryPtr> chunk;
  std::vector<EntryLookup> lookups;
  std::vector<EntryPtr> known;
  bool more = true;
  while (more) {
    EntryPtr entry = fetched.next();
    more = static_cast<bool>(entry);
    if (entry) {
      const EntryLookup lookup{entry->key(), entry->key().hash()};
      if (touched.contains(lookup)) continue;  // as it was, below
      lookups.push_back(lookup);
      chunk.push_back(std::move(entry));
    }
    if (more && chunk.size() < kChunk) continue;
    snapshot.entries(lookups, &known);
    for (size_t i = 0; i < chunk.size(); ++i) {
      // What the store knows has metadata, too.
      EntryPtr& best = known[i] ? known[i] : chunk[i];
      if (takenByAny(*read, *best)) read->entries.push_back(std::move(best));
    }
    chunk.clear();
    lookups.clear();
    known.clear();
  }
  for (const auto& [slot, original] : touched) {
    if (original && takenByAny(*read, *original)) read->entries.push_back(original);
  }
}

bool ReadRun::takenByAny(const TableRead& read, const Entry& entry) const {
  return std::any_of(read.queries.begin(), read.queries.end(),
                     [&](size_t query) { return queries_[query].takes(entry); });
}

bool ReadRun::sent(const DeviceMgr::ReadSink& sink) const {
  EntitySender sender(index_, sink);
  for (const TablePlan* table : defaults_) {
    if (!sender.defaultEntrySent(*table)) return false;
  }
  for (size_t i = 0; i < single_.size(); ++i) {
    const Query& query = queries_[oneEntry_[i]];
    if (!single_[i] || !query.takes(*single_[i])) continue;
    if (!sender.entrySent(*query.table, *single_[i])) return false;
  }
  for (const auto& [tableId, read] : tables_) {
    for (const EntryPtr& entry : read.entries) {
      if (!sender.entrySent(*read.table, *entry)) return false;
    }
  }
  return sender.restSent();
}

void ReadRun::doFail(size_t query, int code, const std::string& message) {
  errors_[query].set_canonical_code(code);
  errors_[query].set_message(message);
}

}  // namespace pi::fe::proto
