// Looks through an LMDB file before LMDB does, which trusts its pages: what is damaged there would
// end in an assertion or a wild access.
#pragma once

#include <string>

namespace Brine {

// Empty when every page that the newest commit reaches is sound, and so are the lists of free
// pages; else what is wrong. Nobody may write meanwhile. Takes about a microsecond a page.
std::string damageOf(const std::string& path);

}  // namespace Brine
