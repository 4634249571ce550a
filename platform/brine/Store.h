// Keyed shared-memory tables that outlive the process: one LMDB environment in the state directory.
// One process writes; any number of processes read whole commits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Brine {

using Bytes = std::span<const uint8_t>;
using TableNumber = uint32_t;  // of this process's opening; names are what lasts

enum class Trouble {
  full,          // no room in the state directory, or the map is at its maximum
  unwritable,    // directory missing and not creatable, or no permission
  wrongVersion,  // written by another version of the layout
  damaged,       // the files are no environment of ours
  busy,          // another writer has the state directory open
  missing,       // a reader found no store there (yet)
};

// The message names the directory and what to do about it.
class StoreError : public std::runtime_error {
 public:
  StoreError(Trouble trouble, const std::string& message)
      : std::runtime_error(message), trouble(trouble) {}
  const Trouble trouble;
};

struct StoreOptions {
  std::string directory;                              // created when absent
  size_t maxBytes = size_t{64} * 1024 * 1024 * 1024;  // of address space, not of memory
  unsigned maxTables = 2048;
};

// The writer. Call with the activity lock held; the thread may change from call to call.
// Writes gather in a write set, which get() and count() see at once and others see from commit()
// on.
class Store {
 public:
  // Throws StoreError. A damaged store, or one of another version, is left alone: the caller
  // decides whether to rebuild() it.
  static std::unique_ptr<Store> open(const StoreOptions& options);
  // Moves what is there aside to DIRECTORY.damaged-N and opens an empty store.
  static std::unique_ptr<Store> rebuild(const StoreOptions& options);
  virtual ~Store() = default;

  virtual TableNumber table(std::string_view name) = 0;  // creates it when absent
  virtual bool hasTable(std::string_view name) const = 0;
  virtual std::vector<std::string> tableNames() const = 0;
  virtual void tableDel(std::string_view name) = 0;  // with all its records, at once

  // Valid until the next write, commit or discard of this store.
  virtual std::optional<Bytes> get(TableNumber table, Bytes key) = 0;
  // Insert or replace; the caller fills the returned bytes before any other call. Keys: 1 to 2,048
  // bytes. Throws StoreError{full} when there is no memory.
  virtual std::span<uint8_t> reserve(TableNumber table, Bytes key, size_t size) = 0;
  void put(TableNumber table, Bytes key, Bytes value);
  virtual bool erase(TableNumber table, Bytes key) = 0;  // false when there was none
  virtual void eraseAll(TableNumber table) = 0;
  virtual size_t count(TableNumber table) const = 0;  // records, the write set included

  // Walks the committed records in ascending byte order of their keys, from `from` on (empty: the
  // first). The write set is not seen. Stops when `visit` answers false. `visit` must not write.
  using Visit = std::function<bool(Bytes key, Bytes value)>;
  virtual void forEach(TableNumber table, const Visit& visit, Bytes from = {}) = 0;

  virtual bool dirty() const = 0;  // whether the write set holds anything
  // Makes the write set visible and lasting, as one transaction. Throws StoreError{full}: the write
  // set is then dropped and the store is as after the commit before.
  virtual void commit() = 0;
  virtual void discard() = 0;  // drops the write set
  virtual size_t bytesUsed() const = 0;
};

// Reads another process's store. Not thread-safe: one Reader a thread.
class Snapshot;
class Reader {
 public:
  static std::unique_ptr<Reader> open(const std::string& directory);  // throws StoreError
  virtual ~Reader() = default;
  // One commit's state, the newest. Keep it short: pages it sees cannot be reused meanwhile.
  // At most one at a time.
  virtual std::unique_ptr<Snapshot> snapshot() = 0;
};

class Snapshot {
 public:
  virtual ~Snapshot() = default;
  virtual std::vector<std::string> tableNames() const = 0;
  virtual bool hasTable(std::string_view name) const = 0;
  // The three below answer nothing for a table that is not there. Bytes live as long as this.
  virtual std::optional<Bytes> get(std::string_view table, Bytes key) = 0;
  virtual void forEach(std::string_view table, const Store::Visit& visit, Bytes from = {}) = 0;
  virtual size_t count(std::string_view table) = 0;
};

inline Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}
inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace Brine
