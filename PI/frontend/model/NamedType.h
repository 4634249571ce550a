// A translated type whose values are names.
#pragma once

#include <memory>

#include "PI/frontend/model/Plans.h"

namespace pi::fe::proto {

struct NamedType {
  explicit NamedType(std::string name) : names(std::move(name)) {}

  Dictionary names;
  // The table in which the target keeps the pairs; its actions in order of size
  // (PI/frontends/proto/translation_tables.h).
  std::unique_ptr<TablePlan> table;
};

}  // namespace pi::fe::proto
