// Reads the counts of all forwarding agents: keeps their stores open, and looks for stores that
// came, went or were replaced at the price of one fstat() a look-up.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

#include "platform/brine/FileLookup.h"
#include "platform/lattice/counters/FlowCountersLayout.h"

namespace Lattice {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the folder of folders does not tell by its own times is found this much later.
constexpr milliseconds scanInterval{100};
// A store that cannot be read is looked at again after this, and then ever more rarely.
constexpr milliseconds firstRetry{100};
constexpr milliseconds lastRetry{60000};
constexpr int64_t settledAfterNs = 20'000'000;  // more than a tick of the kernel's clock

class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Descriptor() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

// A folder as of one look. Its entries change its time of modification, which moves in ticks: a
// look within the same tick may be followed by a change that does not show.
struct FolderState {
  bool there = false;
  dev_t device = 0;
  ino_t inode = 0;
  int64_t modifiedNs = 0;
  friend bool operator==(const FolderState&, const FolderState&) = default;
};

constexpr off_t leastStore = 8192;  // bytes; a smaller file is still being made

// A store's file, to know it again.
struct StoreFile {
  dev_t device = 0;
  ino_t inode = 0;  // 0: no file
  friend bool operator==(const StoreFile&, const StoreFile&) = default;
};

StoreFile storeFile(const std::string& directory) {
  struct stat status {};
  if (lstat((directory + "/brine.mdb").c_str(), &status) != 0) return {};
  if (status.st_size < leastStore) return {};
  return {status.st_dev, status.st_ino};
}

// One forwarding agent's store, as far as it can be read.
class Collection {
 public:
  explicit Collection(std::string directory) : directory_(std::move(directory)) {}

  void maybeOpen(Clock::time_point now) {
    const StoreFile file = storeFile(directory_);
    if (file != file_) {
      lookup_.reset();
      wait_ = {};
      retryAt_ = now;
    }
    file_ = file;
    if (lookup_ || file_.inode == 0 || now < retryAt_) return;
    doOpen(now);
  }

  void read(std::string_view name, std::vector<FlowCount>* out) {
    if (!lookup_) return;
    try {
      const auto bytes = lookup_->get(flowCountersTable, Brine::asBytes(name));
      if (const auto count = bytes ? FlowCountRecord::decode(*bytes) : std::nullopt) {
        out->push_back(*count);
      }
    } catch (const Brine::StoreError& error) {
      if (error.trouble != Brine::Trouble::unavailable) handleTrouble(Clock::now());
    }
  }

  bool empty() {
    if (!lookup_) return true;
    try {
      return lookup_->count(flowCountersTable) == 0;
    } catch (const Brine::StoreError&) {
      handleTrouble(Clock::now());
      return true;
    }
  }

 private:
  void doOpen(Clock::time_point now) {
    try {
      lookup_ = Brine::FileLookup::open(directory_);
      wait_ = {};
    } catch (const Brine::StoreError&) {
      handleTrouble(now);
    }
  }

  void handleTrouble(Clock::time_point now) {
    lookup_.reset();
    wait_ = std::clamp(2 * wait_, firstRetry, lastRetry);
    retryAt_ = now + wait_;
  }

  const std::string directory_;
  StoreFile file_;
  std::unique_ptr<Brine::FileLookup> lookup_;  // null: it cannot be read (yet)
  milliseconds wait_{};
  Clock::time_point retryAt_{};
};

class FlowCounterReaderImpl final : public FlowCounterReader {
 public:
  explicit FlowCounterReaderImpl(const std::string& stateDirectory)
      : root_(flowCountersRoot(stateDirectory)) {}

  void counts(std::string_view name, std::vector<FlowCount>* out) override {
    out->clear();
    maybeScan();
    for (auto& [folder, collection] : collections_) collection.read(name, out);
  }
  bool empty() override {
    maybeScan();
    return std::ranges::all_of(collections_, [](auto& one) { return one.second.empty(); });
  }

 private:
  void maybeScan() {
    const Clock::time_point now = Clock::now();
    if (now < nextScan_ && settled_ && state(descriptor_.get()) == seen_) return;
    doScan(now);
  }

  void doScan(Clock::time_point now) {
    nextScan_ = now + scanInterval;
    descriptor_ = Descriptor(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    seen_ = state(descriptor_.get());
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    settled_ = !seen_.there || nanoseconds(clock) - seen_.modifiedNs > settledAfterNs;
    const std::vector<std::string> folders = foldersThere();
    std::erase_if(collections_, [&](const auto& known) {
      return std::ranges::find(folders, known.first) == folders.end();
    });
    for (const std::string& folder : folders) {
      collections_.try_emplace(folder, root_ + "/" + folder).first->second.maybeOpen(now);
    }
  }

  // Without a descriptor the path is asked, so that a folder that appears is found at once.
  FolderState state(int descriptor) const {
    struct stat status {};
    const int error = descriptor >= 0 ? fstat(descriptor, &status) : stat(root_.c_str(), &status);
    if (error != 0 || status.st_nlink == 0) return {};
    return {true, status.st_dev, status.st_ino, nanoseconds(status.st_mtim)};
  }

  std::vector<std::string> foldersThere() const {
    std::vector<std::string> folders;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(root_.c_str()), closedir);
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
      if (isFlowCountersFolder(entry->d_name)) folders.emplace_back(entry->d_name);
    }
    return folders;
  }

  const std::string root_;
  Descriptor descriptor_;  // of the root, or none
  FolderState seen_;       // at the newest scan
  bool settled_ = false;
  Clock::time_point nextScan_{};
  std::map<std::string, Collection> collections_;  // by folder
};

}  // namespace

std::unique_ptr<FlowCounterReader> FlowCounterReader::create(const std::string& stateDirectory) {
  return std::make_unique<FlowCounterReaderImpl>(stateDirectory);
}

}  // namespace Lattice
