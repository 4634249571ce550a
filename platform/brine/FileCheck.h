// Looks through an LMDB file before LMDB does, which trusts its pages: what is damaged there would
// end in an assertion or a wild access.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Brine {

struct FileFinding {
  std::string damage;  // empty: sound
  uint64_t pages = 0;  // up to the last one in use
  uint64_t free = 0;   // of them
};

// Looks at every page that the newest commit reaches, at the order of the keys, and at the lists of
// free pages. A file that is absent or empty is sound. Nobody may write meanwhile. Takes about a
// microsecond a page. Throws StoreError when the system refuses to show the file.
FileFinding checkedFile(const std::string& directory, const std::string& path);

// The same of one commit, for a reader that keeps the commit's pages from being used again; the
// lists of free pages are not looked at. Throws StoreError{missing} for an empty file.
std::string damageOfCommit(const std::string& directory, uint64_t transaction);

// Of the file's head alone: what LMDB relies on when it opens a file. A writer may be at work. As
// above for an empty file.
std::string damageOfHead(const std::string& directory);

}  // namespace Brine
