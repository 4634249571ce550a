// What the null target shows when a table is fetched: the layout is that of PI/int/pi_int.h.
#pragma once

#include <cstddef>
#include <string>

extern std::string* theNullTargetTable;
extern size_t theNullTargetEntries;
extern size_t theNullTargetKeyBytes;
