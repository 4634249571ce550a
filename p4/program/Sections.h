// The readers of a program's sections, in the order in which the sections refer to each other.
// Each throws ProgramError.
#pragma once

#include "p4/program/Names.h"

namespace P4 {

void readHeaderTypes(const Node& section, Names& names);
void readHeaders(const Node& section, Names& names);
void readStacks(const Node& section, Names& names);
void readUnionTypes(const Node& section, Names& names);
void readUnions(const Node& section, Names& names);
void readUnionStacks(const Node& section, Names& names);
void readAliases(const Node& section, Names& names);
void readErrors(const Node& section, Names& names);
void readValueSets(const Node& section, Names& names);
void readParsers(const Node& section, Names& names);
void readDeparsers(const Node& section, Names& names);
void readCalculations(const Node& section, Names& names);
void readCounters(const Node& section, Names& names);
void readMeters(const Node& section, Names& names);  // without the tables that bind them
void readRegisters(const Node& section, Names& names);
void readActions(const Node& section, Names& names);
void readPipelines(const Node& section, Names& names);
void readChecksums(const Node& section, Names& names);
void readFieldLists(const Node& section, std::vector<FieldList>& lists, Names& names);

// Inputs and algorithm of a calculation or a selector.
Calculation readCalculation(const Node& node, const char* algorithmKey, const Names& names);

}  // namespace P4
