#include "platform/pollen/engine/InputVtab.h"

#include <algorithm>

#include "platform/brine/Hash.h"

namespace Pollen {
namespace {

constexpr size_t firstFetch = 16;
constexpr size_t largestFetch = 1024;

// No exception passes through SQLite: it is kept, and thrown again by QueryDatabase::step().
template <typename Body>
int guarded(std::exception_ptr& thrown, Body body) {
  try {
    body();
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    thrown = std::current_exception();
    return SQLITE_NOMEM;
  } catch (...) {
    thrown = std::current_exception();
    return SQLITE_ERROR;
  }
}

}  // namespace

InputVtab::InputVtab(QueryDatabase& database, size_t number)
    : sqlite3_vtab{}, database(database), number(number) {}
InputVtab::~InputVtab() = default;

// Number of a constraint a column that must be equal to something known, -1: none.
struct InputVtab::Equalities {
  std::vector<int> ofColumn;

  Equalities(const sqlite3_index_info* info, size_t columns) : ofColumn(columns, -1) {
    for (int i = 0; i < info->nConstraint; ++i) {
      const auto& one = info->aConstraint[i];
      if (!one.usable || one.op != SQLITE_INDEX_CONSTRAINT_EQ || one.iColumn < 0) continue;
      int& slot = ofColumn[static_cast<size_t>(one.iColumn)];
      if (slot < 0) slot = i;
    }
  }
  // Of the leading columns, as far as they go.
  std::vector<int> leading(size_t columns) const {
    const auto end =
        std::find(ofColumn.begin(), ofColumn.begin() + static_cast<ptrdiff_t>(columns), -1);
    return {ofColumn.begin(), end};
  }
};

void InputVtab::choose(sqlite3_index_info* info, const std::vector<int>& constraints,
                       int plan) const {
  info->idxNum = plan;
  info->idxStr = sqlite3_mprintf("%d", static_cast<int>(number));
  info->needToFreeIdxStr = 1;
  for (size_t i = 0; i < constraints.size(); ++i) {
    info->aConstraintUsage[constraints[i]].argvIndex = static_cast<int>(i) + 1;
  }
  const struct {
    double cost;
    sqlite3_int64 rows;
  } estimates[] = {{1e6, 100000}, {1, 1}, {10, 1}, {200, 100}, {30, 10}};
  const auto& estimate = estimates[std::min(plan, static_cast<int>(indexPlan))];
  info->estimatedCost = estimate.cost;
  info->estimatedRows = estimate.rows;
  if (plan == keyPlan) info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
}

int InputVtab::bestIndex(sqlite3_index_info* info) {
  return guarded(database.thrown_, [&] {
    if (database.driver_ == number) return choose(info, {}, driverPlan);
    const Equalities equal(info, input().columnCount());
    const size_t keyColumns = input().type()->keyColumns().size();
    const auto leading = equal.leading(keyColumns);
    if (leading.size() == keyColumns && keyColumns > 0) return choose(info, leading, keyPlan);
    std::vector<size_t> columns;
    std::vector<int> constraints;
    for (size_t i = 0; i < equal.ofColumn.size(); ++i) {
      if (equal.ofColumn[i] < 0) continue;
      columns.push_back(i);
      constraints.push_back(equal.ofColumn[i]);
    }
    if (columns.empty()) return choose(info, {}, scanPlan);
    if (leading.size() == columns.size()) return choose(info, leading, prefixPlan);
    choose(info, constraints, indexPlan + static_cast<int>(input().indexNumber(columns)));
  });
}

InputCursor::InputCursor(InputVtab& table)
    : sqlite3_vtab_cursor{}, table_(table), reader_(table.input().type()) {}

void InputCursor::filter(int plan, int argc, sqlite3_value** argv) {
  plan_ = plan;
  rows_.clear();
  at_ = 0;
  prefix_.clear();
  exhausted_ = true;
  if (plan == driverPlan) return showDriver();
  if (plan == keyPlan) return lookUpKey(argc, argv);
  if (plan >= indexPlan) {
    const auto number = static_cast<size_t>(plan - indexPlan);
    // One look-up does not pay for an index that has to be built first.
    if (filters_++ > 0 || input().indexReady(number)) return beginIndex(number, argc, argv);
  }
  if (plan == prefixPlan) {
    const auto& columns = input().type()->keyColumns();
    for (int i = 0; i < argc; ++i) {
      if (!appendKeyBytes(columns[static_cast<size_t>(i)], argv[i], &prefix_)) return show();
    }
  }
  beginWalk();
}

void InputCursor::lookUpKey(int argc, sqlite3_value** argv) {
  const auto& columns = input().type()->keyColumns();
  for (int i = 0; i < argc; ++i) {
    if (!appendKeyBytes(columns[static_cast<size_t>(i)], argv[i], &prefix_)) return show();
  }
  if (const auto value = input().row(prefix_)) rows_.push_back({prefix_, std::string(*value)});
  show();
}

void InputCursor::beginIndex(size_t number, int argc, sqlite3_value** argv) {
  const auto& columns = input().index(number).columns();
  IndexHash hash;
  for (int i = 0; i < argc; ++i) {
    if (input().isInteger(columns[static_cast<size_t>(i)])) {
      int64_t value = 0;
      if (!asInteger(argv[i], &value)) return show();
      hash.add(value);
    } else {
      if (sqlite3_value_type(argv[i]) != SQLITE_BLOB) return show();
      const auto size = static_cast<size_t>(sqlite3_value_bytes(argv[i]));
      hash.add({static_cast<const char*>(sqlite3_value_blob(argv[i])), size});
    }
  }
  input().maybeFill(number);
  hash_ = hash.value();
  after_.clear();
  most_ = firstFetch;
  exhausted_ = false;
  fetch();
  show();
}

// The changed rows come first, then the committed ones, some at a time.
void InputCursor::beginWalk() {
  plan_ = scanPlan;
  input().changedRows(prefix_, &rows_);
  after_.clear();
  most_ = firstFetch;
  exhausted_ = false;
  if (rows_.empty()) fetch();
  show();
}

void InputCursor::fetch() {
  rows_.clear();
  at_ = 0;
  if (plan_ >= indexPlan) {
    keys_.clear();
    input().index(static_cast<size_t>(plan_ - indexPlan)).keys(hash_, after_, most_, &keys_);
    exhausted_ = keys_.size() < most_;
    if (!keys_.empty()) after_ = keys_.back();
    for (std::string& key : keys_) {
      if (const auto value = input().row(key))
        rows_.push_back({std::move(key), std::string(*value)});
    }
  } else {
    input().committedRows(prefix_, after_, most_, &rows_);
    exhausted_ = rows_.size() < most_;
    if (!rows_.empty()) after_ = rows_.back().key;
  }
  most_ = std::min(most_ * 2, largestFetch);
}

void InputCursor::show() {
  while (at_ == rows_.size() && !exhausted_) fetch();
  atEnd_ = at_ == rows_.size();
  if (!atEnd_) reader_.rowIs(rows_[at_].key, rows_[at_].value);
}

void InputCursor::showDriver() {
  const auto rows = input().driverRows();
  atEnd_ = at_ == rows.size();
  if (atEnd_) return;
  reader_.rowIs(rows[at_].key, rows[at_].value);
  input().currentSignIs(rows[at_].sign);
}

void InputCursor::next() {
  ++at_;
  plan_ == driverPlan ? showDriver() : show();
}

void InputCursor::column(sqlite3_context* context, int number) {
  const SqlValue value = reader_.value(static_cast<size_t>(number));
  switch (value.kind) {
    case SqlValue::Kind::null:
      return sqlite3_result_null(context);
    case SqlValue::Kind::integer:
      return sqlite3_result_int64(context, value.integer);
    case SqlValue::Kind::blob:
      if (value.blob.empty()) return sqlite3_result_zeroblob(context, 0);
      return sqlite3_result_blob(context, value.blob.data(), static_cast<int>(value.blob.size()),
                                 SQLITE_TRANSIENT);
  }
}

// SQLite tells rows apart by it where it looks rows up by one condition or another.
sqlite3_int64 InputCursor::rowid() const {
  const std::string_view key =
      plan_ == driverPlan ? input().driverRows()[at_].key : std::string_view(rows_[at_].key);
  return static_cast<sqlite3_int64>(Brine::hashOf(Brine::asBytes(key), 0));
}

namespace {

InputVtab& tableOf(sqlite3_vtab* table) { return *static_cast<InputVtab*>(table); }
InputCursor& cursorOf(sqlite3_vtab_cursor* cursor) { return *static_cast<InputCursor*>(cursor); }

int connect(sqlite3* database, void* aux, int argc, const char* const* argv, sqlite3_vtab** table,
            char** error) {
  auto& owner = *static_cast<QueryDatabase*>(aux);
  const size_t number = argc > 3 ? std::stoul(argv[3]) : 0;
  const std::string declaration =
      "CREATE TABLE x (" + columnList(*owner.inputs()[number]->type()) + ")";
  if (sqlite3_declare_vtab(database, declaration.c_str()) != SQLITE_OK) {
    *error = sqlite3_mprintf("%s", sqlite3_errmsg(database));
    return SQLITE_ERROR;
  }
  *table = new InputVtab(owner, number);
  return SQLITE_OK;
}

int disconnect(sqlite3_vtab* table) {
  delete &tableOf(table);
  return SQLITE_OK;
}

int bestIndex(sqlite3_vtab* table, sqlite3_index_info* info) {
  return tableOf(table).bestIndex(info);
}

int openCursor(sqlite3_vtab* vtab, sqlite3_vtab_cursor** cursor) {
  InputVtab& table = tableOf(vtab);
  return guarded(table.thrown(), [&] {
    if (table.spare.empty()) {
      *cursor = new InputCursor(table);
      return;
    }
    table.spare.back()->reopen();
    *cursor = table.spare.back().release();
    table.spare.pop_back();
  });
}

int closeCursor(sqlite3_vtab_cursor* cursor) {
  InputVtab& table = tableOf(cursor->pVtab);
  return guarded(table.thrown(), [&] { table.spare.emplace_back(&cursorOf(cursor)); });
}

int filter(sqlite3_vtab_cursor* cursor, int plan, const char*, int argc, sqlite3_value** argv) {
  return guarded(tableOf(cursor->pVtab).thrown(),
                 [&] { cursorOf(cursor).filter(plan, argc, argv); });
}

int next(sqlite3_vtab_cursor* cursor) {
  return guarded(tableOf(cursor->pVtab).thrown(), [&] { cursorOf(cursor).next(); });
}

int atEnd(sqlite3_vtab_cursor* cursor) { return cursorOf(cursor).atEnd() ? 1 : 0; }

int column(sqlite3_vtab_cursor* cursor, sqlite3_context* context, int number) {
  cursorOf(cursor).column(context, number);
  return SQLITE_OK;
}

int rowid(sqlite3_vtab_cursor* cursor, sqlite3_int64* id) {
  *id = cursorOf(cursor).rowid();
  return SQLITE_OK;
}

sqlite3_module module() {
  sqlite3_module module{};
  module.iVersion = 1;
  module.xCreate = connect;
  module.xConnect = connect;
  module.xBestIndex = bestIndex;
  module.xDisconnect = disconnect;
  module.xDestroy = disconnect;
  module.xOpen = openCursor;
  module.xClose = closeCursor;
  module.xFilter = filter;
  module.xNext = next;
  module.xEof = atEnd;
  module.xColumn = column;
  module.xRowid = rowid;
  return module;
}

}  // namespace

const sqlite3_module inputModule = module();

}  // namespace Pollen
