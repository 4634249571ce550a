#include "forwarder/plane/Plane.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "forwarder/packets/PacketThread.h"
#include "p4/program/ProgramError.h"
#include "p4/tables/Refusal.h"
#include "platform/lattice/records/Packing.h"

namespace Forwarder {
namespace {

// See P4Runtime/companion/ErrorCode.h.
constexpr uint16_t codeInternal = 2;
constexpr uint16_t codeNotReady = 5;
constexpr uint16_t codeUnsupported = 6;

uint16_t codeOf(P4::RefusalKind kind) {
  switch (kind) {
    case P4::RefusalKind::full:
      return 1;
    case P4::RefusalKind::constant:
      return 7;
    case P4::RefusalKind::notFound:
    case P4::RefusalKind::inUse:
      return 11;
    case P4::RefusalKind::alreadyExists:
      return 12;
    case P4::RefusalKind::invalid:
      break;
  }
  return 14;
}

PlaneVerdict verdictOf(const P4::Refusal& refusal) {
  const P4::RefusalKind kind = refusal.kind();
  const bool mayBecomeTrue = kind != P4::RefusalKind::invalid && kind != P4::RefusalKind::constant;
  return {codeOf(kind), refusal.what(), mayBecomeTrue};
}

}  // namespace

Plane::Plane(PlaneOptions options, EngineSlot& slot, DigestQueue& digests, FlowBook& flows, Log log)
    : options_(std::move(options)),
      slot_(slot),
      digests_(digests),
      flows_(flows),
      log_(std::move(log)),
      source_(options_.stateDirectory) {
  if (options_.program.empty()) return;
  execute({options_.program, {}});
  rebuild({});
  commit();
}

bool Plane::isStale() {
  if (source_.isNew()) takePush();
  return isFresh_;
}

// A push without a program leaves the former one, and so does one that cannot be executed.
void Plane::takePush() {
  try {
    auto pushed = source_.take();
    trouble_.clear();
    if (!pushed) return forgetPush();
    push_ = pushed->push;
    Executed next{pushed->json.empty() ? executed_.json : std::move(pushed->json),
                  std::move(pushed->names)};
    if (next.json.empty() || (next == executed_ && pushed->keepsEntries)) return;
    if (!pushed->keepsEntries) {
      countsOf_ = nullptr;
    } else if (!isFresh_) {
      countsOf_ = engine_;
    }
    execute(std::move(next));
  } catch (const std::exception& e) {
    handleTrouble(e.what());
  }
}

// The agent went back to its configured pipeline, which has no program.
void Plane::forgetPush() {
  if (std::exchange(push_, 0) == 0) return;
  countsOf_ = nullptr;
  if (!options_.program.empty()) return execute({options_.program, {}});
  round_.clear();
  tables_.clear();
  maker_.reset();
  executed_ = {};
  engine_ = nullptr;
  isFresh_ = false;
  slot_.engineIs(nullptr);
  log_("executes no program any more");
}

void Plane::handleTrouble(const std::string& trouble) {
  countsOf_ = nullptr;
  trouble_ = "the program of push " + std::to_string(push_) + " is not executed: " + trouble;
  log_(trouble_);
}

// Packets meet the engine once rebuild() and commit() have filled it.
void Plane::execute(Executed next) {
  auto engine = std::make_shared<P4::Engine>(next.json, options_.engine);
  const P4::DigestConfig eachAtOnce{.maxSamples = 1, .maxWait = 0, .suppress = false};
  for (uint32_t list = 0; list < engine->program().learnLists.size(); ++list) {
    engine->setDigest(list, eachAtOnce);
  }
  tables_.clear();
  maker_.reset();
  round_.clear();
  isInRound_ = false;
  for (auto& [table, book] : idle_) book.timeToLive.clear();  // rows that stay say them again
  engine_ = std::move(engine);
  executed_ = std::move(next);
  maker_ = std::make_unique<PlaneTables>(*engine_, executed_.names, idle_, flows_);
  for (const uint32_t port : downPorts_) engine_->tables().portIs(port, false);
  isFresh_ = true;
}

void Plane::rebuild(const std::vector<const ProgrammedTable*>& tables) {
  addRows(tables);
  if (const auto former = std::exchange(countsOf_, nullptr)) engine_->takeCounts(*former);
  isFresh_ = false;
  wantedDigests_ = maker_->wantedDigests();
  digests_.wantedAre(engine_.get(), wantedDigests_);
  toldCells_.clear();
  for (const P4::CounterArrayInfo& array : engine_->program().counters) {
    toldCells_.emplace_back(array.direct ? 0 : array.size);
  }
}

// References may lead to rows of other tables: rows are offered until all are taken, or none of a
// round.
void Plane::addRows(const std::vector<const ProgrammedTable*>& tables) {
  struct Refused {
    const ProgrammedTable* table;
    const StoredRow* row;
    std::string why;
  };
  std::vector<Refused> refused;
  const auto offer = [&](const ProgrammedTable& table, const StoredRow& row) {
    const RowFlow* flow = table.rows()->flow(row);
    const PlaneVerdict verdict = write(table, {.key = row.key(),
                                               .value = row.value(),
                                               .former = {},
                                               .entryHandle = flow ? flow->entryHandle : 0});
    table.rows()->placeIs(row, verdict.place);
    if (!verdict.isTaken()) refused.push_back({&table, &row, verdict.message});
    if (verdict.isTaken() && flow) countsAre(table, row.key(), *flow);
  };
  for (const ProgrammedTable* table : tables) {
    if (table->rows()) table->rows()->forEach([&](const StoredRow& row) { offer(*table, row); });
  }
  for (size_t before = SIZE_MAX; !refused.empty() && refused.size() < before;) {
    before = refused.size();
    for (const Refused& again : std::exchange(refused, {})) offer(*again.table, *again.row);
  }
  if (refused.empty()) return;
  log_(std::to_string(refused.size()) +
       " rows have no place in the program; the first is of table " +
       refused.front().table->name() + ": " + refused.front().why);
}

PlaneTable* Plane::tableOf(const ProgrammedTable& table) {
  auto& known = tables_[&table];
  if (!known && table.type() != nullptr) known = maker_->make(table.name(), *table.type());
  return known.get();
}

PlaneVerdict Plane::write(const ProgrammedTable& table, const PlaneRow& row) {
  if (!engine_) return {};
  isStaged_ = true;
  try {
    PlaneVerdict taken;
    if (PlaneTable* rows = tableOf(table)) taken.place = rows->writePlaced(row);
    return taken;
  } catch (const P4::Refusal& refusal) {
    return verdictOf(refusal);
  }
}

PlaneVerdict Plane::erase(const ProgrammedTable& table, std::string_view key, RowPlace place) {
  if (!engine_) return {};
  isStaged_ = true;
  try {
    if (PlaneTable* rows = tableOf(table)) rows->erasePlaced(key, place);
    return {};
  } catch (const P4::Refusal& refusal) {
    return verdictOf(refusal);
  }
}

void Plane::eraseAll(const ProgrammedTable& table) {
  const auto known = tables_.find(&table);
  if (known == tables_.end()) return;
  if (known->second && !isFresh_ && table.rows()) {
    table.rows()->forEach(
        [&](const StoredRow& row) { erase(table, row.key(), table.rows()->place(row)); });
    known->second->finish();
  }
  if (known->second) maker_->forget(*known->second);
  round_.clear();  // the others wait for the next round
  tables_.erase(known);
}

// What stands for its rows knows the former type. The engine is filled once more, since entries
// stand at most once.
void Plane::handleRetyped(const ProgrammedTable& table) {
  const auto known = tables_.find(&table);
  if (known == tables_.end()) return;
  const bool hasRows = known->second && !isFresh_;
  if (known->second) maker_->forget(*known->second);
  round_.clear();
  tables_.erase(known);
  if (!hasRows) return;
  try {
    countsOf_ = engine_;
    execute(executed_);
  } catch (const std::exception& e) {
    handleTrouble(e.what());
  }
}

void Plane::countsAre(const ProgrammedTable& table, std::string_view key, const RowFlow& flow) {
  if (!engine_) return;
  try {
    if (PlaneTable* rows = tableOf(table)) rows->countsAre(key, flow);
  } catch (const P4::Refusal&) {  // of the table; its row was refused, too
  }
}

void Plane::handleIs(const ProgrammedTable& table, std::string_view key, RowPlace place,
                     uint64_t entryHandle) {
  if (!engine_) return;
  try {
    if (PlaneTable* rows = tableOf(table)) rows->handleIs(key, place, entryHandle);
  } catch (const P4::Refusal&) {  // of the table; its row was refused, too
  }
}

void Plane::commit() {
  isStaged_ = false;
  if (!engine_) return;
  for (const auto& [table, rows] : tables_) {
    if (!rows) continue;
    try {
      rows->finish();
    } catch (const P4::Refusal& refusal) {
      log_("table " + table->name() + ": " + refusal.what());
    }
  }
  maybeTellDigests();
  engine_->tables().publish();
  if (slot_.engine() == engine_) return;
  slot_.engineIs(engine_);
  log_("executes the program " + engine_->program().name +
       (push_ != 0 ? ", push " + std::to_string(push_) : ""));
}

void Plane::settle() {
  if (engine_) engine_->tables().settle();
}

void Plane::maybeTellDigests() {
  if (!maker_ || wantedDigests_ == maker_->wantedDigests()) return;
  wantedDigests_ = maker_->wantedDigests();
  digests_.wantedAre(engine_.get(), wantedDigests_);
}

void Plane::portIs(uint32_t port, bool up) {
  if (up ? downPorts_.erase(port) == 0 : !downPorts_.insert(port).second) return;
  if (!engine_) return;
  engine_->tables().portIs(port, up);
  if (!isFresh_ && !isStaged_) engine_->tables().commit();
}

std::vector<uint64_t> Plane::idleEntries(uint64_t now) {
  std::vector<uint64_t> handles;
  if (!engine_ || isFresh_) return handles;
  for (const P4::Entry* entry : engine_->idleEntries(now)) {
    if (entry->cookie != 0) handles.push_back(entry->cookie);
  }
  return handles;
}

Lattice::Answer Plane::answer(const Lattice::Question& question) {
  switch (question.kind) {
    case Lattice::Question::Kind::pipeline:
      return answerOfPush(question.push);
    case Lattice::Question::Kind::registerCells:
      return registerCells(question);
    case Lattice::Question::Kind::counts:
      tellCountsNow();
      return {};
    case Lattice::Question::Kind::lastHits:
      return lastHits(question);
  }
  return {codeInternal, "a question that this forwarder does not know"};
}

// A later push may have come meanwhile.
Lattice::Answer Plane::answerOfPush(uint64_t push) const {
  if (push_ < push)
    return {codeNotReady, "the program of push " + std::to_string(push) + " has not come"};
  return {trouble_.empty() ? uint16_t{0} : codeInternal, trouble_};
}

std::optional<uint32_t> Plane::registerWithId(uint32_t id) const {
  for (const auto& [rows, meaning] : executed_.names.tables) {
    if (meaning.kind != "register" || meaning.id != id) continue;
    return P4::registerNamed(engine_->program(), meaning.name);
  }
  return std::nullopt;
}

Lattice::Answer Plane::registerCells(const Lattice::Question& question) const {
  const auto array = engine_ ? registerWithId(question.registerId) : std::nullopt;
  if (!array) {
    return {codeInternal,
            "the program has no register with id " + std::to_string(question.registerId)};
  }
  Lattice::Answer answer;
  for (uint64_t cell = question.firstCell; cell - question.firstCell < question.cellCount; ++cell) {
    const auto bytes = engine_->registerCell(*array, static_cast<uint32_t>(cell));
    if (!bytes) return {codeInternal, "there is no cell " + std::to_string(cell)};
    answer.bytes += *bytes;
  }
  return answer;
}

// Entries that packets of a moment ago have met count from now.
Lattice::Answer Plane::lastHits(const Lattice::Question& question) const {
  constexpr uint64_t nanosecondsPerMicrosecond = 1000;
  if (!engine_ || isFresh_) return {codeUnsupported, "the switch executes no program"};
  const EntryTable* entries = maker_->entriesOf(question.tableId);
  if (entries != nullptr && !entries->isAgeing()) {
    return {codeUnsupported, "the program that the switch executes has no idle time-outs there"};
  }
  const uint64_t now = PacketThread::now();
  Lattice::Answer answer;
  for (const uint64_t handle : question.entryHandles) {
    const auto last = entries != nullptr ? entries->lastHit(handle) : std::nullopt;
    uint64_t since = Lattice::unknownLastHit;
    if (last) since = (now - std::min(now, *last)) * nanosecondsPerMicrosecond;
    Lattice::append(answer.bytes, since);
  }
  return answer;
}

}  // namespace Forwarder
