#include "platform/lattice/types/DirectColumns.h"

#include <algorithm>

#include "platform/lattice/types/RowWalk.h"

namespace Lattice {
namespace {

using Part = TableType::Part;

// Collects the flag and the numbers of one part.
struct PartNumbers {
  Part wanted;
  std::vector<uint64_t> numbers;

  void column(const TableType::ValuePart& part, const Column& column, std::string_view bytes) {
    if (part.part != wanted) return;
    numbers.push_back(column.size == 1 ? loadAt<uint8_t>(bytes.data())
                                       : loadAt<uint64_t>(bytes.data()));
  }
  static void action(const ActionLayout&) {}
};

// Empty without such a part, and for a value of another layout.
std::vector<uint64_t> partNumbers(Part part, const TableType& type, std::string_view value) {
  PartNumbers visitor{part, {}};
  return walkValue(type, value, visitor) ? std::move(visitor.numbers) : std::vector<uint64_t>();
}

}  // namespace

bool isCounted(const TableType& type) {
  return std::ranges::find(type.valueParts(), Part::counter, &TableType::ValuePart::part) !=
         type.valueParts().end();
}

std::optional<MeterColumns> meterOfRow(const TableType& type, std::string_view value) {
  const auto numbers = partNumbers(Part::meter, type, value);
  if (numbers.empty()) return std::nullopt;
  return MeterColumns{.given = numbers[0] != 0,
                      .cir = numbers[1],
                      .cburst = numbers[2],
                      .pir = numbers[3],
                      .pburst = numbers[4]};
}

std::optional<CounterColumns> counterOfRow(const TableType& type, std::string_view value) {
  const auto numbers = partNumbers(Part::counter, type, value);
  if (numbers.empty()) return std::nullopt;
  return CounterColumns{.given = numbers[0] != 0,
                        .flag = static_cast<uint8_t>(numbers[0]),
                        .bytes = numbers[1],
                        .packets = numbers[2]};
}

}  // namespace Lattice
