// Checks an LMDB file before LMDB opens it. LMDB trusts its pages: damage would end in an assertion
// or a wild access.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Brine {

struct FileFinding {
  std::string damage;  // empty: sound; else a description
  uint64_t pages = 0;  // up to the last one in use
  uint64_t free = 0;   // of them
};

// Looks at every page that the newest commit reaches, at the order of the keys, and at the lists of
// free pages. A file that is absent or empty is sound. Nobody may write meanwhile. Takes about a
// microsecond a page. Throws StoreError when the system refuses to show the file.
FileFinding checkFile(const std::string& directory, const std::string& path);

// Describes the damage of one commit, or returns "" for a sound one: for a reader that keeps the
// commit's pages from being used again; the lists of free pages are not looked at. Throws
// StoreError{missing} for an empty file.
std::string damageOfCommit(const std::string& directory, uint64_t transaction);

// The same of the file's head alone, on which LMDB relies when it opens a file. A writer may be at
// work. As above for an empty file.
std::string damageOfHead(const std::string& directory);

}  // namespace Brine
