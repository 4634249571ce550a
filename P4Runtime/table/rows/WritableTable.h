// The part of a table's model that a write of it needs.
#pragma once

#include "P4Runtime/companion/ResourceId.h"
#include "P4Runtime/pipeline/FieldBitwidths.h"
#include "platform/lattice/Database.h"
#include "platform/lattice/types/RowConstructor.h"

namespace P4Runtime {

// Borrowed from the pipeline's model: valid while the activity lock is held.
struct WritableTable {
  ResourceId rid;
  const FieldBitwidths& widths;
  Lattice::RowConstructor& constructor;
  Lattice::ArTableInterface& interface;
  bool needsPriority;
};

}  // namespace P4Runtime
