// The store's file, opened and mapped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/brine/Layout.h"
#include "platform/brine/Store.h"

namespace Brine {

std::string dataPath(const std::string& directory);
std::string writerPath(const std::string& directory);
// Stores of former layouts have a file of this name.
std::string formerDataPath(const std::string& directory);

// Throws the StoreError for a system error code. The message names `file`, or the store's data
// unless given.
[[noreturn]] void failed(int error, const std::string& directory, const std::string& file = {});
[[noreturn]] void damaged(const std::string& directory, const std::string& what);

// The mapping stays at its place, and grows into address space that it holds already. The writer
// uses one from one thread at a time; readers share nothing.
class StoreFile {
 public:
  // The writer's: makes the file when it is absent. Throws StoreError.
  static StoreFile openToWrite(const StoreOptions& options);
  // A reader's. Throws StoreError.
  static StoreFile openToRead(const std::string& directory);
  ~StoreFile();
  StoreFile(StoreFile&& other) noexcept;
  StoreFile& operator=(StoreFile&&) = delete;

  const std::string& directory() const { return directory_; }
  FileHead& head() const { return *reinterpret_cast<FileHead*>(base_); }
  uint64_t word(CommitWord which) const;  // its number; throws StoreError{damaged}
  void wordIs(CommitWord which, uint64_t number);

  RingEntry& ring(uint64_t sequence) const { return ring_[sequence & (head().changes - 1)]; }
  // A copy of the change of that sequence number; nothing when a later one has its place, or it is
  // damaged.
  std::optional<RingEntry> change(uint64_t sequence) const;
  ExtentHead& extent(uint64_t page) const {
    return *reinterpret_cast<ExtentHead*>(base_ + page * pageSize);
  }
  SlotHead& slot(Ref ref) const {
    return *reinterpret_cast<SlotHead*>(base_ + size_t{ref} * refUnit);
  }
  // Has the processor fetch the slot, which need not be one, while other work goes on.
  void loadSlot(Ref ref) const {
    const uint8_t* const at = base_ + size_t{ref} * refUnit;
    __builtin_prefetch(at);
    __builtin_prefetch(at + 64);
  }
  uint64_t mappedPages() const { return mappedBytes_ / pageSize; }

  // Memory for the pages, which read as zero. Throws StoreError{full}; nothing is then taken.
  void allocatePages(uint64_t first, uint64_t count);
  // Gives their memory back; where the file system cannot, they are as they were.
  void freePages(uint64_t first, uint64_t count);

 private:
  StoreFile(int file, uint8_t* base, size_t mappedBytes, std::string directory);
  int file_ = -1;
  uint8_t* base_ = nullptr;
  RingEntry* ring_ = nullptr;
  size_t mappedBytes_ = 0;
  std::string directory_;
};

}  // namespace Brine
