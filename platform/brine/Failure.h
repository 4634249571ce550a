// The store's files, and the translation of LMDB's and the system's errors about them.
#pragma once

#include <lmdb.h>

#include <string>

namespace Brine {

std::string dataPath(const std::string& directory);
std::string lockPath(const std::string& directory);
std::string writerPath(const std::string& directory);

// Throws the StoreError for an LMDB or system error code. Only LMDB's own codes for damage count as
// damage. The message names `file`, or the store's data unless given.
[[noreturn]] void failed(int error, const std::string& directory, const std::string& file = {});
inline void check(int error, const std::string& directory) {
  if (error != MDB_SUCCESS) failed(error, directory);
}

// Throws StoreError{damaged}.
[[noreturn]] void damaged(const std::string& directory, const std::string& what);

}  // namespace Brine
