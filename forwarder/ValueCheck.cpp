#include "forwarder/ValueCheck.h"

#include <cstddef>
#include <optional>

namespace Forwarder {
namespace {

using Lattice::ColumnType;
using Lattice::TableType;

constexpr uint32_t meterSize = 33;
constexpr uint32_t counterSize = 17;

// Takes bytes from the front of a value; says when they are cut short.
struct Cursor {
  std::string_view rest;

  bool skipped(size_t size) {
    if (rest.size() < size) return false;
    rest.remove_prefix(size);
    return true;
  }
  std::optional<uint32_t> u32() {
    if (rest.size() < 4) return std::nullopt;
    uint32_t number = 0;
    for (int i = 3; i >= 0; --i) number = number << 8 | static_cast<uint8_t>(rest[i]);
    rest.remove_prefix(4);
    return number;
  }
};

}  // namespace

void ValueCheck::stepFor(const Lattice::Column& column, std::vector<Step>& steps) {
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
        stepFor(part.column, steps_);
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
      stepFor(field, actionSteps_[action.actionId]);
    }
    actionSteps_.try_emplace(action.actionId);  // also when it has no fields
  }
}

std::string ValueCheck::fault(std::string_view value) const {
  Cursor cursor{value};
  const auto cutShort = [&] {
    return "its value of " + std::to_string(value.size()) + " bytes is cut short";
  };
  const auto simpleStep = [&](const Step& step) {
    if (step.kind == Step::Kind::bytes) return cursor.skipped(step.size);
    const auto count = cursor.u32();
    return count && cursor.skipped(size_t{*count} * step.size);
  };
  for (const Step& step : steps_) {
    if (step.kind != Step::Kind::action) {
      if (!simpleStep(step)) return cutShort();
      continue;
    }
    const auto actionId = cursor.u32();
    if (!actionId) return cutShort();
    const auto action = actionSteps_.find(*actionId);
    if (action == actionSteps_.end()) {
      return "its action " + std::to_string(*actionId) + " is none of the table's type";
    }
    for (const Step& field : action->second) {
      if (!simpleStep(field)) return cutShort();
    }
  }
  if (cursor.rest.empty()) return {};
  return "its value has " + std::to_string(cursor.rest.size()) + " bytes too many";
}

}  // namespace Forwarder
