#include "tests/platform/pollen/QueryFixture.h"

#include "platform/pollen/engine/ActiveQuery.h"
#include "platform/pollen/sql/Sql.h"

namespace TestSupport {

using Lattice::Column;
using Lattice::ColumnType;
using Vela::ActivityLock;

namespace {

// Takes the cells one by one.
struct Packer {
  const Cells& cells;
  size_t at = 0;
  bool fits = true;

  void add(const Column& column, bool bigEndian, std::string* bytes) {
    if (column.type == ColumnType::none) return;
    const Cell& cell = cells.at(at++);
    if (column.type <= ColumnType::u64) {
      const auto* number = std::get_if<int64_t>(&cell);
      const int64_t most = column.size < 8 ? (int64_t{1} << 8 * column.size) - 1 : INT64_MAX;
      if (!number || *number < 0 || *number > most) return void(fits = false);
      for (uint32_t i = 0; i < column.size; ++i) {
        const uint32_t shift = 8 * (bigEndian ? column.size - 1 - i : i);
        bytes->push_back(static_cast<char>(*number >> shift));
      }
      return;
    }
    const auto* text = std::get_if<std::string>(&cell);
    if (!text || (column.size != 0 && text->size() != column.size)) return void(fits = false);
    if (column.type == ColumnType::u32Array) {
      fits = fits && text->size() % 4 == 0;
      const auto count = static_cast<uint32_t>(text->size() / 4);
      bytes->append(reinterpret_cast<const char*>(&count), sizeof count);
    }
    bytes->append(*text);
  }

  void addAction(const Lattice::TableType& type, std::string* bytes) {
    const auto* id = std::get_if<int64_t>(&cells.at(at));
    const auto* chosen = id ? type.action(static_cast<uint32_t>(*id)) : nullptr;
    if (!chosen) fits = false;
    add({"action", ColumnType::u32, {}, 4}, false, bytes);
    for (const auto& action : type.actions()) {
      for (const Column& field : action.fields) {
        if (field.type == ColumnType::none) continue;
        if (&action == chosen) {
          add(field, false, bytes);
        } else {
          ++at;
        }
      }
    }
  }
};

void check(int result, sqlite3* database) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
  throw std::runtime_error(sqlite3_errmsg(database));
}

Cell cellOf(sqlite3_stmt* statement, int column) {
  switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(statement, column);
    case SQLITE_BLOB:
      return std::string(static_cast<const char*>(sqlite3_column_blob(statement, column)),
                         static_cast<size_t>(sqlite3_column_bytes(statement, column)));
    default:
      return {};
  }
}

void bind(sqlite3_stmt* statement, int number, const Cell& cell) {
  if (const auto* value = std::get_if<int64_t>(&cell)) {
    sqlite3_bind_int64(statement, number, *value);
  } else if (const auto* bytes = std::get_if<std::string>(&cell)) {
    sqlite3_bind_blob(statement, number, bytes->data() ? bytes->data() : "",
                      static_cast<int>(bytes->size()), SQLITE_TRANSIENT);
  }
}

// The cells of a stored row, without help of the tested code.
Cells unpacked(const Lattice::TableType& type, std::string_view key, std::string_view value) {
  Cells cells;
  const auto take = [&](std::string_view& bytes, const Column& column, bool bigEndian) {
    if (column.type == ColumnType::none) return;
    size_t size = column.size;
    if (column.type == ColumnType::u32Array) {
      size = 4 * static_cast<unsigned char>(bytes[0]);  // the tests' arrays are short
      bytes.remove_prefix(4);
    }
    std::string part(bytes.substr(0, size));
    bytes.remove_prefix(size);
    if (column.type > ColumnType::u64) return cells.emplace_back(part), void();
    if (bigEndian) part = {part.rbegin(), part.rend()};
    int64_t number = 0;
    std::memcpy(&number, part.data(), part.size());
    cells.emplace_back(number);
  };
  for (const Column& column : type.keyColumns()) take(key, column, true);
  for (const auto& part : type.valueParts()) {
    if (part.part == Lattice::TableType::Part::column) {
      take(value, part.column, false);
      continue;
    }
    take(value, {"action", ColumnType::u32, {}, 4}, false);
    const int64_t id = std::get<int64_t>(cells.back());
    for (const auto& action : type.actions()) {
      for (const Column& field : action.fields) {
        if (field.type == ColumnType::none) continue;
        if (action.actionId == static_cast<uint32_t>(id)) {
          take(value, field, false);
        } else {
          cells.emplace_back();
        }
      }
    }
  }
  return cells;
}

}  // namespace

std::optional<Lattice::Row> packed(const Lattice::TableType& type, const Cells& cells) {
  Lattice::Row row;
  Packer packer{cells};
  for (const Column& column : type.keyColumns()) packer.add(column, true, &row.key);
  for (const auto& part : type.valueParts()) {
    if (part.part == Lattice::TableType::Part::action) {
      packer.addAction(type, &row.value);
    } else {
      packer.add(part.column, false, &row.value);
    }
  }
  return packer.fits ? std::optional(row) : std::nullopt;
}

Tables::Tables(const std::string& directory) : store(directory) {
  const ActivityLock lock;
  database = Lattice::Database::create(loop, store, {.doorbellPath = directory + "/doorbell.sock"});
  Pollen::QueryTables tables;
  tables.typeOf = [this](const std::string& name) {
    return outputs_.contains(name) ? nullptr : typeOf(name);
  };
  tables.outputTableIs = [this](const std::string& path, const std::string& type) {
    outputs_.insert(path);
    tableIs(path, type);
    return interfaces[path];
  };
  tables.database = database.get();
  sm = Vela::make<Pollen::QueryConfigSm>(loop, configs, statuses, tables);
}

Tables::~Tables() {
  const ActivityLock lock;
  sm = nullptr;
  interfaces.clear();
  database.reset();
  for (const std::string& name : types_) Lattice::TheTypeRegistry().typeDel(name);
}

void Tables::typeIs(const std::string& name, const std::string& definition) {
  Lattice::TheTypeRegistry().typeIs(Lattice::TableType::compile(name, definition));
  types_.push_back(name);
}

void Tables::tableIs(const std::string& name, const std::string& type) {
  interfaces[name] = Vela::make<Lattice::ArTableInterface>(name, type, nullptr);
  database->bindInterface(interfaces[name], name, true);
}

void Tables::queryIs(const QueryText& query) {
  const auto config = configs->queryConfigIs(query.path, query.outputType);
  config->queryTextIs(query.text);
  config->oneShotIs(query.oneShot);
  for (const auto& [name, table] : query.inputs) config->inputTableIs(name, table);
  for (const auto& [name, value] : query.parameters) config->parameterIs(name, value);
  configs->activeQueryConfigIs(config);
}

void Tables::turn() {
  loop.post([this] { loop.stop(); });
  loop.run();
}

void Tables::settle() {
  const auto building = [this] {
    const ActivityLock lock;
    for (const std::string& path : configs->entityNames()) {
      const auto status = statuses->queryStatus(path);
      if (!status || (!status->active() && status->reason().empty())) return true;
    }
    return false;
  };
  for (int turns = 0; turns < 3 || (building() && turns < 1000); ++turns) turn();
}

Pollen::QueryStatus& Tables::status(const std::string& path) {
  sm->publishStatuses();
  return *statuses->queryStatus(path);
}

std::shared_ptr<const Lattice::TableType> Tables::typeOf(const std::string& table) const {
  const auto found = interfaces.find(table);
  return found == interfaces.end() ? nullptr
                                   : Lattice::TheTypeRegistry().type(found->second->typeName());
}

void Tables::write(const std::string& table, const Cells& cells, bool deleted) {
  const Lattice::Row row = packed(*typeOf(table), cells).value();
  auto& interface = *interfaces.at(table);
  deleted ? interface.rowDel(row.key, 1) : interface.rowIs(row, 1);
}

Rows Tables::rows(const std::string& table) {
  const Unlocked commits;
  const ActivityLock lock;
  Rows rows;
  Lattice::StoredRows(store, table).forEachCommitted([&](auto key, auto value) {
    rows.emplace(key, value);
    return true;
  });
  return rows;
}

Rows Tables::expected(const QueryText& query) {
  sqlite3* raw = nullptr;
  sqlite3_open(":memory:", &raw);
  const Pollen::SqlDatabase database(raw);
  for (const auto& [name, table] : query.inputs) {
    const auto type = typeOf(table);
    const std::string create = "CREATE TABLE " + name + " (" + Pollen::columnList(*type) + ")";
    check(sqlite3_exec(raw, create.c_str(), nullptr, nullptr, nullptr), raw);
    std::string insert = "INSERT INTO " + name + " VALUES (?";
    for (size_t i = 1; i < Pollen::sqlColumns(*type).size(); ++i) insert += ", ?";
    sqlite3_stmt* into = nullptr;
    check(sqlite3_prepare_v2(raw, (insert + ")").c_str(), -1, &into, nullptr), raw);
    const Pollen::SqlStatement statement(into);
    for (const auto& [key, value] : rows(table)) {
      int number = 0;
      for (const Cell& cell : unpacked(*type, key, value)) bind(into, ++number, cell);
      check(sqlite3_step(into), raw);
      sqlite3_reset(into);
      sqlite3_clear_bindings(into);
    }
  }
  sqlite3_stmt* select = nullptr;
  check(sqlite3_prepare_v2(raw, query.text.c_str(), -1, &select, nullptr), raw);
  const Pollen::SqlStatement statement(select);
  Pollen::bindParameters(select, query.parameters);
  Rows result;
  const auto type = Lattice::TheTypeRegistry().type(query.outputType);
  while (sqlite3_step(select) == SQLITE_ROW) {
    Cells cells;
    for (int i = 0; i < sqlite3_column_count(select); ++i) cells.push_back(cellOf(select, i));
    const auto row = packed(*type, cells);
    if (!row) continue;
    const auto [at, fresh] = result.try_emplace(row->key, row->value);
    if (!fresh) at->second = std::min(at->second, row->value);
  }
  return result;
}

}  // namespace TestSupport
