#include "platform/pollen/engine/QueryEngine.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("QueryEngine");

namespace Pollen {
namespace {

// Some 20 ms a step, so that the reactor's other work is not kept waiting.
constexpr size_t rowsAStep = 4000;

}  // namespace

using State = QueryProgress::State;

QueryEngine::QueryEngine(Vela::ReactorLoop& loop, Lattice::Database& database)
    : loop_(loop), database_(database) {
  database_.commitObserverIs(this);
}

QueryEngine::~QueryEngine() {
  *alive_ = false;
  database_.commitObserverIs(nullptr);
}

void QueryEngine::post(std::function<void()> work) {
  loop_.post([alive = alive_, work = std::move(work)] {
    if (*alive) work();
  });
}

QueryEngine::Query* QueryEngine::find(const std::string& path) {
  const auto found =
      std::ranges::find_if(queries_, [&](const auto& query) { return query->spec.path == path; });
  return found == queries_.end() ? nullptr : found->get();
}

void QueryEngine::queryIs(QuerySpec spec, Vela::Ptr<Lattice::ArTableInterface> output) {
  queryDel(spec.path);
  queries_.push_back(std::make_unique<Query>());
  Query& query = *queries_.back();
  query.spec = std::move(spec);
  query.output = std::move(output);
  if (database_.inBatch()) return;  // onBatchEnded() goes on
  stepGuarded(query);
  if (query.state == State::building) schedule();
}

void QueryEngine::queryDel(const std::string& path) {
  std::erase_if(queries_, [&](const auto& query) { return query->spec.path == path; });
}

QueryProgress QueryEngine::progress(const std::string& path) const {
  const Query* query = const_cast<QueryEngine*>(this)->find(path);
  if (!query) return {};
  QueryProgress progress = query->last;
  progress.state = query->state;
  progress.reason = query->reason;
  progress.atEvaluation = query->state == State::failed && query->active;
  progress.method = query->spec.oneShot ? "one-shot" : methodText(query->spec.method);
  if (query->output->ready()) progress.rows = query->output->rowCount();
  if (query->active) {
    progress.trouble = query->active->output().trouble();
    progress.evaluations = query->active->evaluations();
    progress.microseconds = query->active->microseconds();
  }
  return progress;
}

void QueryEngine::stateIs(Query& query, State state, std::string reason) {
  if (query.state == state && query.reason == reason) return;
  query.state = state;
  query.reason = std::move(reason);
  post([this, path = query.spec.path] {
    if (progressHandler_) progressHandler_(path);
  });
}

void QueryEngine::doBegin(Query& query) {
  if (!query.output->ready()) throw QueryError("its output table is not ready");
  std::vector<std::unique_ptr<InputTable>> inputs;
  for (const auto& [name, type] : query.spec.checked.inputs) {
    const auto& read = query.spec.method.read;
    if (std::ranges::find(read, name) == read.end()) continue;
    const std::string& table = query.spec.inputTables.at(name);
    auto watch = database_.watch(table);
    if (!watch) throw QueryError("input table " + table + " is gone");
    inputs.push_back(std::make_unique<InputTable>(name, table, type, std::move(watch)));
  }
  auto output = std::make_unique<OutputTable>(
      database_, query.output, query.spec.checked.output,
      [this](uint64_t handle, std::string_view key, uint64_t sequence, bool deleted) {
        if (derivedRowHandler_) derivedRowHandler_(handle, key, sequence, deleted);
      });
  query.active = std::make_unique<ActiveQuery>(query.spec, std::move(inputs), std::move(output));
}

void QueryEngine::doStep(Query& query) {
  if (!query.active) doBegin(query);
  query.active->build(rowsAStep);
  if (!query.active->built()) return stateIs(query, State::building);
  query.finished = query.spec.oneShot;
  SCRIVEL_TRACE(0, "query is active: ", query.spec.path, " ", methodText(query.spec.method));
  stateIs(query, State::active);
}

void QueryEngine::stepGuarded(Query& query) try {
  try {
    doStep(query);
  } catch (const QueryError& error) {
    doFail(query, error.what(), error.hopeless);
  }
} catch (const std::exception& error) {
  stateIs(query, State::failed, error.what());
}

// Rows of a failed query would be wrong.
void QueryEngine::doFail(Query& query, const std::string& reason, bool hopeless) {
  SCRIVEL_TRACE(0, "query failed: ", query.spec.path, " ", reason);
  query.hopeless = hopeless || !query.active;
  if (query.active && query.output->ready()) query.active->clear();
  stateIs(query, State::failed, reason);
}

void QueryEngine::schedule() {
  if (std::exchange(scheduled_, true)) return;
  post([this] { handleTurn(); });
}

// One step of one query a turn.
void QueryEngine::handleTurn() {
  scheduled_ = false;
  if (database_.inBatch()) return;  // onBatchEnded() goes on
  const auto building = [](const auto& query) { return query->state == State::building; };
  const auto next = std::ranges::find_if(queries_, building);
  if (next == queries_.end()) return;
  stepGuarded(**next);
  if (std::ranges::any_of(queries_, building)) schedule();
}

void QueryEngine::onBatchEnded() {
  const auto building = [](const auto& query) { return query->state == State::building; };
  if (std::ranges::any_of(queries_, building)) schedule();
}

void QueryEngine::onBeforeCommit() {
  for (const auto& query : queries_) {
    if (query->active && !query->finished) update(*query);
  }
}

void QueryEngine::update(Query& query) try {
  if (!query.output->ready()) return;
  if (query.state == State::failed) {
    if (query.hopeless || !query.active->anyChange()) return;
    stateIs(query, State::building);
    return schedule();
  }
  query.active->changesAre();
  if (!query.active->output().inconsistent()) return;
  SCRIVEL_TRACE(0, "query is built again: a row went that never came: ", query.spec.path);
  query.active->clear();
  stateIs(query, State::building);
  schedule();
} catch (const QueryError& error) {
  doFail(query, error.what(), error.hopeless);
}

void QueryEngine::onCommitted() {
  for (const auto& query : queries_) {
    if (!query->active) continue;
    query->active->finishCommit();
    if (!query->finished) continue;
    query->last = progress(query->spec.path);
    query->active.reset();
  }
}

// A query that was built or failed in this commit starts over, but not before a second attempt may
// succeed: at onBatchEnded(), or at the next change.
void QueryEngine::onDiscarded() {
  for (const auto& query : queries_) {
    if (!query->active) continue;
    const bool lost = query->active->rollBack();
    if (query->active->built() || query->state == State::failed) continue;
    query->finished = false;
    if (lost) stateIs(*query, State::failed, "its rows could not be stored");
  }
}

void QueryEngine::onWatchedTableGone(const std::string& name) {
  for (const auto& query : queries_) {
    const bool reads = query->active && query->active->reads(name) && !query->finished;
    if (!reads) continue;
    query->active.reset();
    query->hopeless = true;
    stateIs(*query, State::failed, "input table " + name + " is gone");
  }
}

std::vector<std::string> QueryEngine::rowTexts(std::span<const uint64_t> handles) {
  std::vector<std::string> texts(handles.size());
  std::unordered_map<uint64_t, size_t> wanted;
  for (size_t i = 0; i < handles.size(); ++i) wanted[handles[i]] = i;
  for (const auto& query : queries_) {
    const std::string& path = query->spec.path;
    Lattice::StoredRows(database_.store(), path)
        .forEachCommitted([&](std::string_view key, std::string_view) {
          const auto found = wanted.find(derivedHandle(path, key));
          if (found == wanted.end()) return true;
          std::string& text = texts[found->second];
          text = "table " + path;
          for (const auto& column : keyTexts(*query->spec.checked.output, key)) {
            text += ", " + column.name + "=" + column.text;
          }
          wanted.erase(found);
          return !wanted.empty();
        });
  }
  return texts;
}

}  // namespace Pollen
