// The rows of one table by their packed key: a hash table of pointers to rows of one allocation
// each.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <functional>
#include <string_view>

namespace Forwarder {

// A row as the forwarder holds it; its key and value bytes follow it in memory.
struct StoredRow {
  uint32_t keySize = 0;    // bytes
  uint32_t valueSize = 0;  // bytes
  uint32_t snapshot = 0;   // the last snapshot that showed it; for whoever sweeps
  std::string_view key() const { return {bytes(), keySize}; }
  std::string_view value() const { return {bytes() + keySize, valueSize}; }
  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
};

// Owns its rows. A row keeps its address until it is deleted, or replaced by one of another size.
// One thread uses it.
class RowSet {
 public:
  RowSet() = default;
  ~RowSet();
  RowSet(const RowSet&) = delete;
  RowSet& operator=(const RowSet&) = delete;

  StoredRow* row(std::string_view key) const;  // null when absent
  struct Written {
    StoredRow* row = nullptr;
    bool inserted = false;  // else replaced
    bool moved = false;     // replaced, and at another address than before
  };
  // `leaving` is told of a row that is about to move, while it is still whole.
  Written rowIs(std::string_view key, std::string_view value,
                const std::function<void(const StoredRow&)>& leaving);
  void rowDel(const StoredRow& row);
  void rowDelAll();
  size_t size() const { return slots_.size(); }

  template <typename Visit>
  void forEach(const Visit& visit) const {
    for (const Slot& slot : slots_) visit(*slot.row);
  }
  // Deletes the rows that `gone` answers true for; answers how many.
  template <typename Gone>
  size_t sweep(const Gone& gone) {
    const size_t before = slots_.size();
    for (auto slot = slots_.begin(); slot != slots_.end();) {
      const auto here = slot++;
      if (!gone(*here->row)) continue;
      StoredRow* row = here->row;
      slots_.erase(here);
      free(row);
    }
    return before - slots_.size();
  }

 private:
  // The hash stands beside the pointer so that growing the table reads no rows.
  struct Slot {
    StoredRow* row;
    size_t hash;
  };
  struct Probe {
    std::string_view key;
    size_t hash;
  };
  struct HashOfSlot {
    using is_transparent = void;
    size_t operator()(const Slot& slot) const { return slot.hash; }
    size_t operator()(const Probe& probe) const { return probe.hash; }
  };
  struct SameKey {
    using is_transparent = void;
    bool operator()(const Slot& a, const Slot& b) const { return a.row == b.row; }
    bool operator()(const Slot& a, const Probe& b) const {
      return a.hash == b.hash && a.row->key() == b.key;
    }
    bool operator()(const Probe& a, const Slot& b) const { return (*this)(b, a); }
  };
  static Probe probeOf(std::string_view key);
  static StoredRow* allocated(std::string_view key, std::string_view value);
  static void free(StoredRow* row);

  absl::flat_hash_set<Slot, HashOfSlot, SameKey> slots_;
};

}  // namespace Forwarder
