// One SQLite database a query, whose tables are the query's inputs.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/pollen/engine/InputTable.h"
#include "platform/pollen/sql/Sql.h"

namespace Pollen {

// A query cannot be evaluated; the message is SQLite's.
class QueryError : public std::runtime_error {
 public:
  explicit QueryError(const std::string& words, bool hopeless = false)
      : std::runtime_error(words), hopeless(hopeless) {}
  const bool hopeless;  // other rows will not make it better
};

// Inputs are virtual tables: equality with all key columns is a look-up, with the first ones a walk
// over that part of the table, with others a look-up in an index; all else is a walk over the whole
// table. Statements must die before this. Call with the activity lock held.
class QueryDatabase {
 public:
  explicit QueryDatabase(std::vector<std::unique_ptr<InputTable>> inputs);  // throws QueryError
  QueryDatabase(const QueryDatabase&) = delete;
  QueryDatabase& operator=(const QueryDatabase&) = delete;

  const std::vector<std::unique_ptr<InputTable>>& inputs() const { return inputs_; }

  // A statement that reads input number `driver` from its driverRows(), in the outermost loop; the
  // indexes that it uses of the others are kept from now on. Without a driver it reads all inputs
  // as they are seen. Throws QueryError.
  SqlStatement prepare(const std::string& text, std::optional<size_t> driver);
  // Advances to the next row; false at the end. Throws QueryError, and exceptions of reading rows.
  bool step(sqlite3_stmt* statement);
  void beginEvaluation() { operations_ = 0; }  // bounds the operations from now on

 private:
  friend struct InputVtab;
  friend struct InputCursor;
  static int progress(void* self);
  uint64_t operationsAllowed();
  void createInput(size_t number);
  void keepIndexesOf(const std::string& text);
  [[noreturn]] void fail();

  SqlDatabase database_;
  std::vector<std::unique_ptr<InputTable>> inputs_;
  std::optional<size_t> driver_;  // of the statement that is being prepared
  std::exception_ptr thrown_;     // by a callback from SQLite, which knows no exceptions
  uint64_t operations_ = 0;       // in millions, of this evaluation
};

}  // namespace Pollen
