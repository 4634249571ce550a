// Carries out one Read.
#include "PI/frontend/read/ReadRun.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/base/StatusText.h"
#include "PI/frontend/check/RightsCheck.h"
#include "PI/frontend/read/EntityReader.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/ProfileObjects.h"
#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {

namespace {

// Each entry of a table is compared with each of these queries.
constexpr size_t kMostQueriesOfATable = 256;

constexpr uint32_t bitOf(EntryForm form) { return 1u << static_cast<int>(form); }

// A bit for each form of that kind.
constexpr uint32_t formsWith(bool (*has)(EntryForm form)) {
  uint32_t forms = 0;
  for (int number = 0; number < kEntryForms; ++number) {
    const auto form = static_cast<EntryForm>(number);
    if (has(form)) forms |= bitOf(form);
  }
  return forms;
}
constexpr uint32_t kFormsWithCounter = formsWith(hasCounter);
constexpr uint32_t kFormsWithLastHit = formsWith(hasLastHit);

std::string missingText(const Query& query) {
  if (query.profile != nullptr) {
    return absl::StrCat("action profile ", query.profile->name, ": there is no ",
                        objectText(objectId(*query.key)));
  }
  return absl::StrCat(keyText(*query.table, query.key->keyData(), query.priority),
                      ": there is no such entry");
}

}  // namespace

std::optional<google::rpc::Status> ReadRun::run(const p4::v1::ReadRequest& request,
                                                const DeviceMgr::ReadSink& sink) {
  // From before the snapshot: its entries may be deleted before they are sent.
  std::vector<Dictionary::Reading> names;
  names.reserve(index_.namedTypes().size());
  for (const auto& type : index_.namedTypes()) names.emplace_back(type->names);
  doCheck(request);
  if (countsWanted_) _pi_counts_wanted(session_.deviceId);
  const EntryStore::Snapshot snapshot(store_, lookups());
  if (!snapshot.isOf(index_)) return std::nullopt;
  doCheckFound(snapshot);
  idleTimeouts_.emplace(snapshot);
  if (!sendAll(snapshot, sink)) {
    return plainStatus(code::cancelled, "the client takes no more of the answer");
  }
  doCopyErrors();
  return itemisedStatus(&errors_, "queries");
}

void ReadRun::doCheck(const p4::v1::ReadRequest& request) {
  const auto count = static_cast<size_t>(request.entities_size());
  queries_.resize(count);
  errors_.resize(count);
  absl::flat_hash_map<std::string, size_t> known;
  for (size_t query = 0; query < count; ++query) {
    firstEqual_.push_back(query);
    try {
      const p4::v1::Entity& entity = request.entities(static_cast<int>(query));
      if (rights_ != nullptr) requireReadRight(index_, *rights_, entity);
      queries_[query] = checkedQuery(index_, entity);
      firstEqual_[query] = known.try_emplace(queries_[query].identity(), query).first->second;
      if (firstEqual_[query] == query) doPlan(query);
    } catch (const Refusal& refusal) {
      doFail(query, refusal.code(), refusal.message());
    }
  }
}

void ReadRun::doPlan(size_t query) {
  const Query& planned = queries_[query];
  const bool isOfCells =
      (planned.kind == Query::Kind::entities || planned.kind == Query::Kind::oneEntity) &&
      planned.entityKind == EntityKind::counter;
  countsWanted_ |= isOfCells || hasCounter(planned.form);
  walks_ |= planned.kind == Query::Kind::allTables || planned.kind == Query::Kind::table ||
            planned.kind == Query::Kind::objects || planned.kind == Query::Kind::entities;
  if (planned.key && planned.kind != Query::Kind::table) {
    foundAt_[query] = keyed_.size();
    keyed_.push_back(query);
  }
  if (planned.kind == Query::Kind::allTables) {
    for (const auto& table : index_.tables()) {
      if (!planned.concerns(*table) || !mayReadTable(*table)) continue;
      tableRead(*table).ofAnyKey.push_back(query);
    }
  }
  if (planned.kind != Query::Kind::table) return;
  TableRead& read = tableRead(*planned.table);
  if (planned.key) {
    read.ofOneKey[planned.key->key().bytes].push_back(query);
    return;
  }
  if (read.ofAnyKey.size() >= kMostQueriesOfATable) {
    refuse(code::resourceExhausted, "table ", planned.table->name, ": a Read may have ",
           kMostQueriesOfATable, " different queries for many entries of a table; send more Reads");
  }
  read.ofAnyKey.push_back(query);
}

bool ReadRun::mayReadTable(const TablePlan& table) const {
  return mayRead(rights_, {EntityObject::Kind::ofP4Info, table.id});
}

ReadRun::TableRead& ReadRun::tableRead(const TablePlan& table) {
  TableRead& read = tables_[table.id];
  read.table = &table;
  return read;
}

std::vector<EntryLookup> ReadRun::lookups() const {
  std::vector<EntryLookup> result;
  result.reserve(keyed_.size());
  for (const size_t query : keyed_) {
    const EntryKey key = queries_[query].key->key();
    result.push_back({key, key.hash()});
  }
  return result;
}

void ReadRun::doCheckFound(const EntryStore::Snapshot& snapshot) {
  for (size_t i = 0; i < keyed_.size(); ++i) {
    const Query& query = queries_[keyed_[i]];
    if (snapshot.found()[i] || !query.mustExist) continue;
    doFail(keyed_[i], code::notFound, missingText(query));
  }
}

// In the order of the queries.
bool ReadRun::sendAll(const EntryStore::Snapshot& snapshot, const DeviceMgr::ReadSink& sink) {
  std::optional<ReadTurn> turn;
  if (walks_) turn.emplace(turns_);
  const DeviceMgr::ReadSink inTurn = [&](const p4::v1::ReadResponse& response) {
    if (!turn) return sink(response);
    const ReadTurn::Sending sending(*turn);
    return sink(response);
  };
  EntitySender sender(index_, inTurn);
  for (size_t query = 0; query < queries_.size(); ++query) {
    if (firstEqual_[query] != query || errors_[query].canonical_code() != code::ok) continue;
    if (!sendResult(snapshot, query, &sender)) return false;
  }
  turn.reset();
  return sender.sendRest();
}

bool ReadRun::sendResult(const EntryStore::Snapshot& snapshot, size_t query, EntitySender* sender) {
  const Query& wanted = queries_[query];
  switch (wanted.kind) {
    case Query::Kind::allTables:
      for (auto& [tableId, read] : tables_) {
        if (!wanted.concerns(*read.table) || !mayReadTable(*read.table)) continue;
        if (!sendTable(snapshot, &read, sender)) return false;
      }
      return true;
    case Query::Kind::table:
      return sendTable(snapshot, &tables_[wanted.table->id], sender);
    case Query::Kind::oneEntry:
    case Query::Kind::oneObject:
      return sendFound(query, snapshot.found()[foundAt_.at(query)], sender);
    case Query::Kind::defaultEntry:
      return sendDefaults(snapshot, query, sender);
    case Query::Kind::objects:
      return sendObjects(snapshot, wanted, sender);
    case Query::Kind::entities:
      return EntityReader(index_, snapshot, session_, sender).sendAll(wanted, rights_);
    case Query::Kind::oneEntity:
      return EntityReader(index_, snapshot, session_, sender)
          .sendOne(wanted, snapshot.found()[foundAt_.at(query)].get());
    case Query::Kind::nothing:
      return true;
  }
  return true;
}

bool ReadRun::sendFound(size_t number, const EntryPtr& found, EntitySender* sender) {
  const Query& query = queries_[number];
  if (!found) return true;
  if (query.kind == Query::Kind::oneObject) return sender->sendObject(*found);
  TableRead read;
  read.table = query.table;
  read.ofAnyKey.push_back(number);
  picked_.clear();
  maybePick(read, *found);
  return sendPicked(&read, sender);
}

bool ReadRun::sendDefaults(const EntryStore::Snapshot& snapshot, size_t number,
                           EntitySender* sender) {
  const Query& query = queries_[number];
  for (const auto& table : index_.tables()) {
    if (query.table != nullptr && query.table != table.get()) continue;
    if (!mayReadTable(*table)) continue;
    const Entry* written =
        table->defaultEntry ? snapshot.onlyEntry(table->defaultEntry->id) : nullptr;
    if (!sendDefault(number, *table, written, sender)) return false;
  }
  return true;
}

// A default entry that nobody has written is not counted.
bool ReadRun::sendDefault(size_t number, const TablePlan& table, const Entry* written,
                          EntitySender* sender) {
  const Query& query = queries_[number];
  const TablePlan* defaults = table.defaultEntry.get();
  if (isResource(query.form) && (defaults == nullptr || !query.concerns(*defaults))) return true;
  const EntryForm form = defaults == nullptr ? EntryForm::plain : query.formFor(*defaults);
  if (written == nullptr || !hasCounter(form)) {
    return sender->sendDefaultEntry(table, written, form, {});
  }
  directCounts(session_, store_, *defaults, {&written, 1}, &counts_);
  const Count& count = counts_.front();
  if (!count.failure) return sender->sendDefaultEntry(table, written, form, count.data);
  doFail(number, count.failure->code(), count.failure->message());
  return true;
}

bool ReadRun::sendObjects(const EntryStore::Snapshot& snapshot, const Query& query,
                          EntitySender* sender) {
  for (const auto& profile : index_.profiles()) {
    if (query.profile != nullptr && query.profile != profile.get()) continue;
    if (!mayRead(rights_, {EntityObject::Kind::ofP4Info, profile->id})) continue;
    for (const Entry* object : snapshot.objects(profile->id, query.groups)) {
      if (!sender->sendObject(*object)) return false;
    }
  }
  return true;
}

bool ReadRun::sendTable(const EntryStore::Snapshot& snapshot, TableRead* read,
                        EntitySender* sender) {
  if (std::exchange(read->sent, true)) return true;
  for (const auto& page : snapshot.table(read->table->id).pages) {
    picked_.clear();
    for (const EntryPtr& entry : page->entries) {
      if (entry) maybePick(*read, *entry);
    }
    if (!sendPicked(read, sender)) return false;
  }
  return true;
}

template <typename Visit>
void ReadRun::forEachTaking(const TableRead& read, const Entry& entry, Visit visit) const {
  const auto visitTaking = [&](const Queries& queries) {
    for (const size_t query : queries) {
      if (queries_[query].takes(entry)) visit(query);
    }
  };
  visitTaking(read.ofAnyKey);
  if (read.ofOneKey.empty()) return;
  const auto keyed = read.ofOneKey.find(entry.key().bytes);
  if (keyed != read.ofOneKey.end()) visitTaking(keyed->second);
}

// Nothing for a query that has failed with the table's last hits. One for all tables goes on
// without them where the forwarding plane has none.
std::optional<EntryForm> ReadRun::formIn(const TableRead& read, size_t query) const {
  const EntryForm form = queries_[query].formFor(*read.table);
  if (!read.noHits || !hasLastHit(form)) return form;
  const bool isLeftOut =
      queries_[query].kind == Query::Kind::allTables && *read.noHits == code::unimplemented;
  if (!isLeftOut) return std::nullopt;
  return withoutLastHit(form);
}

// Once in each form, even if many queries want it.
void ReadRun::maybePick(const TableRead& read, const Entry& entry) {
  uint32_t forms = 0;
  forEachTaking(read, entry, [&](size_t query) {
    if (const auto form = formIn(read, query)) forms |= bitOf(*form);
  });
  if (forms != 0) picked_.push_back({&entry, forms});
}

// The target is asked once for the counts of all.
void ReadRun::askCounts(const TableRead& read) {
  counted_.clear();
  for (const Picked& picked : picked_) {
    if ((picked.forms & kFormsWithCounter) != 0) counted_.push_back(picked.entry);
  }
  if (!counted_.empty()) directCounts(session_, store_, *read.table, counted_, &counts_);
}

void ReadRun::askLastHits(TableRead* read) {
  timed_.clear();
  for (const Picked& picked : picked_) {
    if ((picked.forms & kFormsWithLastHit) != 0) timed_.push_back(picked.entry);
  }
  if (timed_.empty()) return;
  const auto refusal = lastHits(session_, *read->table, timed_, &times_);
  if (!refusal) return;
  handleNoHits(read, *refusal);
  for (const Picked& former : std::exchange(picked_, {})) maybePick(*read, *former.entry);
}

void ReadRun::handleNoHits(TableRead* read, const Refusal& refusal) {
  read->noHits = refusal.code();
  const auto failThose = [&](const Queries& queries) {
    for (const size_t query : queries) {
      if (!formIn(*read, query)) doFail(query, refusal.code(), refusal.message());
    }
  };
  failThose(read->ofAnyKey);
  for (const auto& [key, queries] : read->ofOneKey) failThose(queries);
}

bool ReadRun::sendPicked(TableRead* read, EntitySender* sender) {
  askLastHits(read);
  askCounts(*read);
  const Count* count = counts_.data();
  const std::optional<int64_t>* time = times_.data();
  for (const Picked& picked : picked_) {
    const bool isTimed = (picked.forms & kFormsWithLastHit) != 0;
    const auto sinceLastHit = isTimed ? *time++ : std::nullopt;
    for (int number = 0; number < kEntryForms; ++number) {
      const auto form = static_cast<EntryForm>(number);
      if ((picked.forms & bitOf(form)) == 0) continue;
      if (!sendForm(*read, *picked.entry, form, count, sinceLastHit, sender)) return false;
    }
    if ((picked.forms & kFormsWithCounter) != 0) ++count;
  }
  return true;
}

bool ReadRun::sendForm(const TableRead& read, const Entry& entry, EntryForm form,
                       const Count* count, std::optional<int64_t> sinceLastHit,
                       EntitySender* sender) {
  static const p4::v1::CounterData none;
  const bool isCounted = hasCounter(form);
  if (!isCounted || !count->failure) {
    return sender->sendEntry(*read.table, entry, form,
                             {.count = isCounted ? count->data : none,
                              .idleTimeout = idleTimeouts_->of(*read.table, entry),
                              .sinceLastHit = sinceLastHit});
  }
  forEachTaking(read, entry, [&](size_t query) {
    if (formIn(read, query) != form) return;
    doFail(query, count->failure->code(), count->failure->message());
  });
  return true;
}

void ReadRun::doFail(size_t query, int code, const std::string& message) {
  errors_[query].set_canonical_code(code);
  errors_[query].set_message(message);
}

void ReadRun::doCopyErrors() {
  for (size_t query = 0; query < errors_.size(); ++query) {
    if (firstEqual_[query] != query) errors_[query] = errors_[firstEqual_[query]];
  }
}

}  // namespace pi::fe::proto
