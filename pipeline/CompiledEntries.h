// The entries that stand in a compiled program, which a controller pushes.
#pragma once

#include <string>
#include <vector>

#include "pipeline/ConstantEntry.h"

namespace Pipeline {

class Findings;
class P4InfoLookup;

// From the JSON of a compiled program, in its order; a table, field or action is the P4Info's of
// that name. Entries that the agent cannot program, and those of tables that the P4Info does not
// have, are left out, with a warning for each table. Any other text has no entries. Nothing makes
// it throw but a lack of memory.
std::vector<ConstantEntry> readCompiledEntries(const std::string& program,
                                               const P4InfoLookup& index,
                                               const PipelineLayout& layout, Findings* findings);

}  // namespace Pipeline
