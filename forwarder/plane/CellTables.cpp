#include "forwarder/plane/CellTables.h"

#include <utility>

#include "p4/tables/Refusal.h"

namespace Forwarder {
namespace {

constexpr size_t actionOfSettings = 4;  // arguments of a meter's setting, at least

uint64_t numberIn(std::string_view bytes) {
  uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

uint64_t argument(const RowValue& value, size_t place) {
  return place < value.arguments.size() ? numberIn(value.arguments[place]) : 0;
}

std::optional<P4::MeterRates> ratesOf(const RowValue* value) {
  if (value == nullptr || value->arguments.size() < actionOfSettings) return std::nullopt;
  return P4::MeterRates{argument(*value, 0), argument(*value, 1), argument(*value, 2),
                        argument(*value, 3)};
}

}  // namespace

void CellArrays::cellIs(uint64_t index, const RowValue& value) {
  if (index >= size_) {
    throw P4::Refusal(P4::RefusalKind::invalid, name_ + " has " + std::to_string(size_) +
                                                    " cells, and none with index " +
                                                    std::to_string(index));
  }
  set_(static_cast<uint32_t>(index), &value);
  rows_.insert(index);
}

void CellArrays::cellDel(uint64_t index) {
  if (rows_.erase(index) > 0) set_(static_cast<uint32_t>(index), nullptr);
}

void CellArrays::allCellsAre(std::optional<RowValue> value) {
  all_ = std::move(value);
  isDue_ = true;
}

void CellArrays::finish() {
  if (!std::exchange(isDue_, false)) return;
  for (uint32_t index = 0; index < size_; ++index) {
    if (!rows_.contains(index)) set_(index, all_ ? &*all_ : nullptr);
  }
}

std::shared_ptr<CellArrays> counterCells(P4::Engine& engine, uint32_t array, uint32_t id,
                                         FlowBook& flows) {
  const P4::CounterArrayInfo& info = engine.program().counters[array];
  return std::make_shared<CellArrays>(
      "counter " + info.name, info.size,
      [&engine, array, id, &flows](uint32_t index, const RowValue* value) {
        if (value == nullptr) return;
        const P4::Counts counts{.packets = argument(*value, 0), .bytes = argument(*value, 1)};
        engine.setCounter(array, index, counts);
        flows.cellCountIs(id, index, {.bytes = counts.bytes, .packets = counts.packets});
        flows.urgencyIs();
      });
}

std::shared_ptr<CellArrays> meterCells(P4::Engine& engine, uint32_t array) {
  const P4::MeterArrayInfo& info = engine.program().meters[array];
  return std::make_shared<CellArrays>("meter " + info.name, info.size,
                                      [&engine, array](uint32_t index, const RowValue* value) {
                                        engine.setMeter(array, index, ratesOf(value));
                                      });
}

std::shared_ptr<CellArrays> registerCells(P4::Engine& engine, uint32_t array) {
  const P4::RegisterArrayInfo& info = engine.program().registers[array];
  return std::make_shared<CellArrays>(
      "register " + info.name, info.size,
      [&engine, array, bits = info.bits](uint32_t index, const RowValue* value) {
        if (value == nullptr || value->arguments.empty()) return;
        if (engine.setRegister(array, index, value->arguments.front())) return;
        throw P4::Refusal(P4::RefusalKind::invalid,
                          "the value does not fit a cell of " + std::to_string(bits) + " bits");
      });
}

void CellTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  if (of_ == Of::allCells) return cells_->allCellsAre(std::move(value));
  cells_->cellIs(numberIn(row.key), value);
}

void CellTable::erase(std::string_view key) {
  if (of_ == Of::allCells) return cells_->allCellsAre(std::nullopt);
  cells_->cellDel(numberIn(key));
}

}  // namespace Forwarder
