// A table of the agent with the rows that this forwarder holds of it.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "forwarder/table/MatchTable.h"
#include "platform/lattice/types/TableType.h"

namespace Forwarder {

// Threads: one at a time.
class ProgrammedTable {
 public:
  // `type` may be null: then no row of the table can be read. `placed`: its rows have places.
  ProgrammedTable(std::string name, std::shared_ptr<const Lattice::TableType> type,
                  bool placed = false);

  // Another type, of which the rows are rows as they stand, or null. Returns the former one.
  std::shared_ptr<const Lattice::TableType> typeIs(std::shared_ptr<const Lattice::TableType> type) {
    return std::exchange(type_, std::move(type));
  }

  const std::string& name() const { return name_; }
  const Lattice::TableType* type() const { return type_.get(); }
  MatchTable* rows() const { return rows_.get(); }  // null without a type
  size_t rowCount() const { return rows_ ? rows_->rowCount() : 0; }
  bool hasCounter() const { return hasCounter_; }  // then each row has a flow

  // Throw Lattice::TypeError when the bytes do not have the layout of the type, or there is no
  // type. Another process wrote them, so nothing is taken on trust.
  void checkKey(std::string_view key) const;
  void checkValue(std::string_view value) const;  // after checkKey()

 private:
  const std::string name_;
  std::shared_ptr<const Lattice::TableType> type_;
  bool hasCounter_ = false;
  std::unique_ptr<MatchTable> rows_;
};

}  // namespace Forwarder
