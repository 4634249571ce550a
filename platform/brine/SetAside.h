// Moves a store that is lost out of the way.
#pragma once

#include <string>

#include "platform/brine/Store.h"

namespace Brine {

// Moves the store's files to a folder beside the directory, or in it when that is a mount point or
// its parent is not ours to write. Returns the folder. Throws StoreError.
std::string setAside(const std::string& directory, Trouble why);

}  // namespace Brine
