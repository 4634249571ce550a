#include "platform/lattice/types/KeptRows.h"

#include <algorithm>

namespace Lattice {
namespace {

// A column of another name may be another part of packets.
bool isSame(const Column& former, const Column& next) {
  return former.name == next.name && former.type == next.type && former.role == next.role &&
         former.size == next.size && former.bits == next.bits && former.named == next.named;
}

bool areSame(const std::vector<Column>& former, const std::vector<Column>& next) {
  return std::ranges::equal(former, next, isSame);
}

bool isSamePart(const TableType::ValuePart& former, const TableType::ValuePart& next) {
  return former.part == next.part && isSame(former.column, next.column);
}

// An action goes by its id. A name that moves to another id tells that all ids are new.
bool isNameOfAnother(const ActionLayout& action, const TableType& type) {
  return std::ranges::any_of(type.actions(), [&](const ActionLayout& other) {
    return other.name == action.name && other.actionId != action.actionId;
  });
}

}  // namespace

bool keepsRows(const TableType& former, const TableType& next) {
  return areSame(former.keyColumns(), next.keyColumns()) &&
         std::ranges::equal(former.valueParts(), next.valueParts(), isSamePart) &&
         std::ranges::all_of(former.actions(), [&](const ActionLayout& action) {
           const ActionLayout* const there = next.action(action.actionId);
           return there != nullptr && areSame(action.fields, there->fields) &&
                  !isNameOfAnother(action, next);
         });
}

}  // namespace Lattice
