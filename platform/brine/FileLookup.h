// Single records out of another process's store, without mapping its file: a file that is cut off
// or overwritten meanwhile is an error here, and never a signal or a wild access.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/StoreTerms.h"

namespace Brine {

// Not registered with the writer as a reader: it keeps no page from being used again. One thread
// uses it. A look-up takes a handful of system calls.
class FileLookup {
 public:
  // Throws StoreError: missing, unwritable (not a regular file), damaged, wrongVersion.
  static std::unique_ptr<FileLookup> open(const std::string& directory);
  virtual ~FileLookup() = default;

  // The record of the newest commit; nothing when it is absent. Keys have 1 to 500 bytes. The bytes
  // last until the next call. Throws StoreError{damaged}, and {unavailable} when the writer commits
  // faster than can be read.
  virtual std::optional<Bytes> get(std::string_view table, Bytes key) = 0;
  virtual size_t count(std::string_view table) = 0;  // of the table's records; throws as get() does
};

}  // namespace Brine
