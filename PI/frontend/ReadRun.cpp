// Carries out one Read.
#include "PI/frontend/ReadRun.h"

#include <algorithm>

#include "PI/frontend/DirectCounters.h"
#include "PI/frontend/FetchedTable.h"
#include "PI/frontend/Indirect.h"
#include "PI/frontend/KeyCodec.h"
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
        if (planned.concerns(*table)) tableQueryIs(*table, query);
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
    case Query::Kind::objects:
    case Query::Kind::oneObject:
      objects_.push_back({query, {}});
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
  for (const size_t query : oneEntry_) doCollectOne(snapshot, query);
  for (ObjectRead& read : objects_) doCollectObjects(snapshot, &read);
  for (auto& [tableId, read] : tables_) {
    try {
      doCollectTable(snapshot, &read);
    } catch (const Refusal& refusal) {
      read.entries.clear();
      for (const size_t query : read.queries) doFail(query, refusal.code(), refusal.message());
    }
  }
}

void ReadRun::doCollectOne(const EntryStore::Snapshot& snapshot, size_t query) {
  const Query& wanted = queries_[query];
  single_.push_back(snapshot.entry(wanted.key->key()));
  if (single_.back() || !wanted.mustExist) return;
  doFail(query, code::notFound,
         absl::StrCat(keyText(*wanted.table, wanted.key->keyData(), wanted.priority),
                      ": there is no such entry"));
}

void ReadRun::doCollectObjects(const EntryStore::Snapshot& snapshot, ObjectRead* read) {
  const Query& wanted = queries_[read->query];
  if (wanted.kind == Query::Kind::oneObject) {
    const ObjectId id{wanted.profile->id, wanted.groups, wanted.objectId};
    const ObjectLookup lookup(id);
    read->objects.push_back(snapshot.entry(lookup.lookup().key));
    if (read->objects.back()) return;
    read->objects.clear();
    return doFail(
        read->query, code::notFound,
        absl::StrCat("action profile ", wanted.profile->name, ": there is no ", objectText(id)));
  }
  for (const auto& profile : index_.profiles()) {
    if (wanted.profile != nullptr && wanted.profile != profile.get()) continue;
    const std::vector<EntryPtr> found = snapshot.objects(profile->id, wanted.groups);
    read->objects.insert(read->objects.end(), found.begin(), found.end());
  }
}

// What points at a member or group is known by the store, unless the target made it up.
void ReadRun::requireResolved(const TablePlan& table, const Entry& entry) const {
  if (entry.kind != EntryKind::unresolved) return;
  refuse(code::internal, "table ", table.name, ": the target holds an entry (handle ", entry.handle,
         ") that points at no known member or group");
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
      if (!takenByAny(*read, *best)) continue;
      requireResolved(*read->table, *best);
      read->entries.push_back(std::move(best));
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

bool ReadRun::sent(const DeviceMgr::ReadSink& sink) {
  EntitySender sender(index_, sink);
  for (const TablePlan* table : defaults_) {
    if (!sender.defaultEntrySent(*table)) return false;
  }
  for (size_t i = 0; i < single_.size(); ++i) {
    if (!single_[i]) continue;
    const TablePlan& table = *queries_[oneEntry_[i]].table;
    if (!entrySent(&sender, table, *single_[i], {&oneEntry_[i], 1})) return false;
  }
  for (const auto& [tableId, read] : tables_) {
    for (const EntryPtr& entry : read.entries) {
      if (!entrySent(&sender, *read.table, *entry, read.queries)) return false;
    }
  }
  for (const ObjectRead& read : objects_) {
    for (const EntryPtr& object : read.objects) {
      if (!sender.objectSent(*object)) return false;
    }
  }
  return sender.restSent();
}

// Once in each form that is asked for, by however many queries.
bool ReadRun::entrySent(EntitySender* sender, const TablePlan& table, const Entry& entry,
                        std::span<const size_t> queries) {
  uint32_t forms = 0;
  for (const size_t query : queries) {
    const Query& wanted = queries_[query];
    if (wanted.takes(entry)) forms |= 1u << static_cast<int>(wanted.formFor(table));
  }
  for (int form = 0; form < kEntryForms; ++form) {
    if ((forms & 1u << form) == 0) continue;
    if (!formSent(sender, table, entry, static_cast<EntryForm>(form), queries)) return false;
  }
  return true;
}

bool ReadRun::formSent(EntitySender* sender, const TablePlan& table, const Entry& entry,
                       EntryForm form, std::span<const size_t> queries) {
  p4::v1::CounterData count;
  if (!hasCounter(form)) return sender->entrySent(table, entry, form, count);
  try {
    count = directCount(session_, store_, table, entry);
  } catch (const Refusal& refusal) {
    for (const size_t query : queries) {
      if (queries_[query].formFor(table) == form) {
        doFail(query, refusal.code(), refusal.message());
      }
    }
    return true;
  }
  return sender->entrySent(table, entry, form, count);
}

void ReadRun::doFail(size_t query, int code, const std::string& message) {
  errors_[query].set_canonical_code(code);
  errors_[query].set_message(message);
}

}  // namespace pi::fe::proto
