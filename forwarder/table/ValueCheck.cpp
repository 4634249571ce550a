#include "forwarder/table/ValueCheck.h"

#include <cstddef>
#include <string>

namespace Forwarder {
namespace {

using Lattice::ColumnType;
using Lattice::TableType;
using Lattice::TypeError;

constexpr uint32_t meterSize = 33;
constexpr uint32_t counterSize = 17;

// Takes bytes from the front of a value. Throws TypeError when too few are left.
class Cursor {
 public:
  explicit Cursor(std::string_view value) : valueSize_(value.size()), rest_(value) {}

  size_t bytesLeft() const { return rest_.size(); }
  void skip(size_t size) {
    if (rest_.size() < size) {
      throw TypeError("its value of " + std::to_string(valueSize_) + " bytes is cut short");
    }
    rest_.remove_prefix(size);
  }
  uint32_t takeU32() {
    const std::string_view bytes = rest_;
    skip(4);
    uint32_t number = 0;
    for (int i = 3; i >= 0; --i) number = number << 8 | static_cast<uint8_t>(bytes[i]);
    return number;
  }

 private:
  const size_t valueSize_;
  std::string_view rest_;
};

}  // namespace

void ValueCheck::addStep(const Lattice::Column& column, std::vector<Step>& steps) {
  if (column.type == ColumnType::u32Array) {
    steps.push_back({Step::Kind::array, 4});
  } else if (column.type == ColumnType::u64Array) {
    steps.push_back({Step::Kind::array, 8});
  } else if (!steps.empty() && steps.back().kind == Step::Kind::bytes) {
    steps.back().size += column.size;
  } else {
    steps.push_back({Step::Kind::bytes, column.size});
  }
}

ValueCheck::ValueCheck(const TableType& type) {
  for (const TableType::ValuePart& part : type.valueParts()) {
    switch (part.part) {
      case TableType::Part::column:
        addStep(part.column, steps_);
        break;
      case TableType::Part::action:
        steps_.push_back({Step::Kind::action, 0});
        break;
      case TableType::Part::meter:
        steps_.push_back({Step::Kind::bytes, meterSize});
        break;
      case TableType::Part::counter:
        steps_.push_back({Step::Kind::bytes, counterSize});
        break;
    }
  }
  for (const Lattice::ActionLayout& action : type.actions()) {
    for (const Lattice::Column& field : action.fields) {
      addStep(field, actionSteps_[action.actionId]);
    }
    actionSteps_.try_emplace(action.actionId);  // also when it has no fields
  }
}

void ValueCheck::check(std::string_view value) const {
  Cursor cursor(value);
  const auto skipColumn = [&](const Step& step) {
    if (step.kind == Step::Kind::bytes) {
      cursor.skip(step.size);
    } else {
      cursor.skip(size_t{cursor.takeU32()} * step.size);
    }
  };
  for (const Step& step : steps_) {
    if (step.kind != Step::Kind::action) {
      skipColumn(step);
      continue;
    }
    const uint32_t actionId = cursor.takeU32();
    const auto action = actionSteps_.find(actionId);
    if (action == actionSteps_.end()) {
      throw TypeError("its action " + std::to_string(actionId) + " is none of the table's type");
    }
    for (const Step& field : action->second) skipColumn(field);
  }
  if (cursor.bytesLeft() == 0) return;
  throw TypeError("its value has " + std::to_string(cursor.bytesLeft()) + " bytes too many");
}

}  // namespace Forwarder
