// Rows of counters, meters and registers: cells that a controller has set.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/counters/FlowBook.h"
#include "forwarder/plane/PlaneTable.h"
#include "forwarder/plane/RowReading.h"

namespace Forwarder {

// The cells of one array: those with a row, and all others as the row of all cells says. A count
// or a register value stands when its row goes; a meter's setting goes with it.
class CellArrays {
 public:
  // Sets a cell below `size` to the value of a row, or for null as it is without a row. Throws
  // P4::Refusal.
  using Set = std::function<void(uint32_t index, const RowValue* value)>;
  CellArrays(std::string name, uint32_t size, Set set)
      : name_(std::move(name)), size_(size), set_(std::move(set)) {}

  void cellIs(uint64_t index, const RowValue& value);  // throws P4::Refusal
  void cellDel(uint64_t index);
  void allCellsAre(std::optional<RowValue> value);
  void finish();

 private:
  const std::string name_;
  const uint32_t size_;
  const Set set_;
  absl::flat_hash_set<uint64_t> rows_;
  std::optional<RowValue> all_;
  bool isDue_ = false;
};

// Counts that are set are changes of `flows`, which outlive the cells.
std::shared_ptr<CellArrays> counterCells(P4::Engine& engine, uint32_t array, uint32_t id,
                                         FlowBook& flows);
std::shared_ptr<CellArrays> meterCells(P4::Engine& engine, uint32_t array);
std::shared_ptr<CellArrays> registerCells(P4::Engine& engine, uint32_t array);

// The rows of single cells, or the one row of all cells.
class CellTable final : public PlaneTable {
 public:
  enum class Of : uint8_t { oneCell, allCells };
  CellTable(std::shared_ptr<CellArrays> cells, const Lattice::TableType& type, Of of)
      : cells_(std::move(cells)), type_(type), of_(of) {}
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;
  void finish() override { cells_->finish(); }

 private:
  const std::shared_ptr<CellArrays> cells_;
  const Lattice::TableType& type_;
  const Of of_;
};

}  // namespace Forwarder
