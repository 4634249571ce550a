#include "forwarder/table/ProgrammedTable.h"

#include <utility>

#include "platform/lattice/types/DirectColumns.h"
#include "platform/lattice/types/RowWalk.h"

namespace Forwarder {
namespace {

std::string faultText(const Lattice::ValueFit& fit, size_t valueSize) {
  switch (fit.fault) {
    case Lattice::ValueFit::Fault::unknownAction:
      return "its action " + std::to_string(fit.actionId) + " is none of the table's type";
    case Lattice::ValueFit::Fault::tooLong:
      return "its value has " + std::to_string(fit.surplus) + " bytes too many";
    default:
      return "its value of " + std::to_string(valueSize) + " bytes is cut short";
  }
}

}  // namespace

ProgrammedTable::ProgrammedTable(std::string name, std::shared_ptr<const Lattice::TableType> type,
                                 bool placed)
    : name_(std::move(name)), type_(std::move(type)) {
  if (!type_) return;
  hasCounter_ = Lattice::isCounted(*type_);
  rows_ = matchTableFactory(MatchLayout(*type_), {.counted = hasCounter_, .placed = placed});
}

void ProgrammedTable::checkKey(std::string_view key) const {
  if (!type_) throw Lattice::TypeError("its type is not known here");
  rows_->layout().checkKey(key);
}

void ProgrammedTable::checkValue(std::string_view value) const {
  const Lattice::ValueFit fit = Lattice::fitOfValue(*type_, value);
  if (!fit) throw Lattice::TypeError(faultText(fit, value.size()));
}

}  // namespace Forwarder
