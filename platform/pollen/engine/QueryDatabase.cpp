#include "platform/pollen/engine/QueryDatabase.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/pollen/engine/InputVtab.h"
#include "platform/pollen/sql/QueryCheck.h"

namespace Pollen {
namespace {

// A query that runs wild must not stop the agent for good. A join by keys takes some fifty a row.
constexpr uint64_t freeOperations = 20'000'000;
constexpr uint64_t operationsARow = 500;
constexpr uint64_t operationsAtOnce = 1'000'000;

}  // namespace

QueryDatabase::QueryDatabase(std::vector<std::unique_ptr<InputTable>> inputs)
    : inputs_(std::move(inputs)) {
  sqlite3* raw = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  const int opened = sqlite3_open_v2(":memory:", &raw, flags, nullptr);
  database_.reset(raw);
  if (opened != SQLITE_OK) throw QueryError("SQLite cannot be started");
  sqlite3_create_module(raw, "input", &inputModule, this);
  for (size_t i = 0; i < inputs_.size(); ++i) createInput(i);
  allowReadingOnly(raw);
  sqlite3_progress_handler(raw, static_cast<int>(operationsAtOnce), progress, this);
}

void QueryDatabase::createInput(size_t number) {
  const std::string create = "CREATE VIRTUAL TABLE " + quotedName(inputs_[number]->name()) +
                             " USING input(" + std::to_string(number) + ")";
  if (sqlite3_exec(database_.get(), create.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

int QueryDatabase::progress(void* self) {
  auto& database = *static_cast<QueryDatabase*>(self);
  return ++database.operations_ * operationsAtOnce > database.operationsAllowed() ? 1 : 0;
}

uint64_t QueryDatabase::operationsAllowed() try {
  uint64_t rows = 0;
  for (const auto& input : inputs_) rows += input->rowCount();
  return freeOperations + rows * operationsARow;
} catch (...) {
  thrown_ = std::current_exception();
  return 0;
}

void QueryDatabase::fail() {
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
  if (sqlite3_errcode(database_.get()) == SQLITE_INTERRUPT) {
    throw QueryError("the query takes too long; join its tables by equal columns", true);
  }
  throw QueryError(sqlite3_errmsg(database_.get()));
}

SqlStatement QueryDatabase::prepare(const std::string& text, std::optional<size_t> driver) {
  driver_ = driver;
  if (driver) keepIndexesOf(text);
  sqlite3_stmt* raw = nullptr;
  const int result = sqlite3_prepare_v3(database_.get(), text.c_str(), -1,
                                        SQLITE_PREPARE_PERSISTENT, &raw, nullptr);
  SqlStatement statement(raw);
  if (result != SQLITE_OK) fail();
  return statement;
}

// "SCAN r VIRTUAL TABLE INDEX 5:2": a result of bestIndex() in the plan that SQLite chose.
void QueryDatabase::keepIndexesOf(const std::string& text) {
  constexpr std::string_view mark = "VIRTUAL TABLE INDEX ";
  sqlite3_stmt* raw = nullptr;
  const std::string explain = "EXPLAIN QUERY PLAN " + text;
  if (sqlite3_prepare_v2(database_.get(), explain.c_str(), -1, &raw, nullptr) != SQLITE_OK) fail();
  const SqlStatement statement(raw);
  while (step(raw)) {
    const auto* detail = reinterpret_cast<const char*>(sqlite3_column_text(raw, 3));
    const std::string line = detail ? detail : "";
    const size_t at = line.find(mark);
    if (at == std::string::npos) continue;
    char* end = nullptr;
    const long plan = std::strtol(line.c_str() + at + mark.size(), &end, 10);
    if (plan < indexPlan || *end != ':') continue;
    const auto input = static_cast<size_t>(std::strtol(end + 1, nullptr, 10));
    inputs_.at(input)->keepIndex(static_cast<size_t>(plan - indexPlan));
  }
}

bool QueryDatabase::step(sqlite3_stmt* statement) {
  const int result = sqlite3_step(statement);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  fail();
}

}  // namespace Pollen
