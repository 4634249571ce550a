// The inside of an ArTableInterface: its table in the store, once bound and initialised.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/lattice/TableWatch.h"

namespace Lattice {

struct ArTableInterface::Impl {
  std::string tableName;
  std::string typeName;
  std::function<void()> onReady;
  DatabaseImpl* database = nullptr;  // null: not bound
  std::shared_ptr<const TableType> type;
  std::string boundName;  // the table's name in the database
  bool persistent = true;
  bool initialised = false;
  Brine::TableNumber rows = 0;
  uint32_t number = 0;                  // in the journal
  bool announced = false;               // the table's record in the types table is committed
  std::weak_ptr<WatchedTable> watched;  // empty: no rows are derived from it
};

}  // namespace Lattice
