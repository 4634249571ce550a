#include "forwarder/table/ProgrammedTable.h"

#include <algorithm>
#include <utility>

namespace Forwarder {

ProgrammedTable::ProgrammedTable(std::string name, std::shared_ptr<const Lattice::TableType> type)
    : name_(std::move(name)), type_(std::move(type)) {
  if (!type_) return;
  hasCounter_ = std::ranges::any_of(type_->valueParts(), [](const auto& part) {
    return part.part == Lattice::TableType::Part::counter;
  });
  valueCheck_ = std::make_unique<ValueCheck>(*type_);
  rows_ = matchTableFactory(MatchLayout(*type_), hasCounter_);
}

void ProgrammedTable::checkKey(std::string_view key) const {
  if (!type_) throw Lattice::TypeError("its type is not known here");
  rows_->layout().checkKey(key);
}

void ProgrammedTable::checkValue(std::string_view value) const { valueCheck_->check(value); }

}  // namespace Forwarder
