// Files of constant entries: JSON for people, or a p4.v1.WriteRequest in text form, as P4 compilers
// write one for the entries that stand in the program.
#pragma once

#include <string>
#include <vector>

#include "pipeline/ConstantEntry.h"

namespace Pipeline {

class Findings;
class P4InfoLookup;

// In file order. Errors are PipelineError and name the file, the entry by its number from 1, and
// its table. Two entries of the same key are an error.
std::vector<ConstantEntry> readConstantEntries(const std::string& path, const P4InfoLookup& index,
                                               const PipelineLayout& layout, Findings* findings);

}  // namespace Pipeline
