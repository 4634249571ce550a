// One table that a query reads, in the state that the query shall see at the moment.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lattice/TableWatch.h"
#include "platform/pollen/engine/SecondaryIndex.h"
#include "platform/pollen/sql/SqlRow.h"

namespace Pollen {

// A row that comes to a table (+1) or leaves it (-1).
struct SignedRow {
  std::string_view key;
  std::string_view value;
  int sign = 1;
};

// Threads: call with the activity lock held. Errors: Brine::StoreError from the store. Lifetime:
// owns its watch; row views last until the next write of the table.
class InputTable {
 public:
  InputTable(std::string name, std::string tableName,
             std::shared_ptr<const Lattice::TableType> type,
             std::unique_ptr<Lattice::TableWatch> watch);

  const std::string& name() const { return name_; }            // in the query
  const std::string& tableName() const { return tableName_; }  // in the database
  const std::shared_ptr<const Lattice::TableType>& type() const { return type_; }
  bool isInteger(size_t column) const { return isInteger_[column]; }  // in SQL
  size_t columnCount() const { return isInteger_.size(); }
  size_t rowCount() { return watch_->rows().count(); }

  // Choose the rows that are seen: beforeIs(), the rows of the last commit or the present ones;
  // seenIs(), all rows or the rows below a key.
  void beforeIs(bool before) { before_ = before; }
  enum class Seen { none, belowLimit, all };
  void seenIs(Seen seen, std::string limit = {});
  Seen seen() const { return seen_; }
  const std::string& limit() const { return limit_; }

  std::optional<std::string_view> row(std::string_view key);  // valid until the next call
  // Key and value of each seen row whose key begins with `prefix`, ascending by key, after the key
  // `after`; at most `most`.
  struct OwnedRow {
    std::string key;
    std::string value;
  };
  void committedRows(std::string_view prefix, const std::string& after, size_t most,
                     std::vector<OwnedRow>* rows);
  // The rows that are seen beyond the committed ones, which the former passes over.
  void changedRows(std::string_view prefix, std::vector<OwnedRow>* rows);

  // The changes of this commit that are seen: rows that leave, and rows that come.
  std::vector<SignedRow> signedChanges();
  bool anyChange() { return !watch_->changes().empty(); }
  // The committed rows from the limit on, at most so many; they are not seen yet.
  void unseenRows(size_t most, std::vector<OwnedRow>* rows);

  // The rows that a delta statement runs over in place of the table.
  void driverRowsAre(std::span<const SignedRow> rows) { driverRows_ = rows; }
  std::span<const SignedRow> driverRows() const { return driverRows_; }
  void currentSignIs(int sign) { currentSign_ = sign; }
  int currentSign() const { return currentSign_; }

  // The number of the index over these columns, a new one if need be.
  size_t indexNumber(const std::vector<size_t>& columns);
  SecondaryIndex& index(size_t number) { return *indexes_[number].index; }
  bool indexReady(size_t number) const { return indexes_[number].kept || indexes_[number].filled; }
  // A kept index follows the rows. Another index is filled at its first use, with the rows seen
  // then, and emptied by dropUnkept().
  void keepIndex(size_t number) { indexes_[number].kept = true; }
  bool keepsIndexes() const;
  void maybeFill(size_t number);
  void dropUnkept();
  void indexRows(std::span<const SignedRow> rows);  // of the kept ones
  void emptyIndexes();

 private:
  struct Index {
    std::unique_ptr<SecondaryIndex> index;
    bool kept = false;
    bool filled = false;
  };
  bool isSeen(std::string_view key) const;
  void indexRow(SecondaryIndex& index, const SignedRow& row);
  const Lattice::ChangedRow* change(std::string_view key);

  const std::string name_;
  const std::string tableName_;
  const std::shared_ptr<const Lattice::TableType> type_;
  const std::unique_ptr<Lattice::TableWatch> watch_;
  std::vector<bool> isInteger_;  // by SQL column
  RowReader reader_;
  bool before_ = false;
  Seen seen_ = Seen::all;
  std::string limit_;
  std::span<const SignedRow> driverRows_;
  int currentSign_ = 1;
  std::vector<Index> indexes_;
};

}  // namespace Pollen
