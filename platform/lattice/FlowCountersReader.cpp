// Reads the counts of all forwarding agents: keeps their stores open, and looks for what came, went
// or was replaced at the price of one fstat() a look-up.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

#include "platform/brine/FileCheck.h"
#include "platform/lattice/FlowCountersLayout.h"

namespace Lattice {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the folder of folders does not tell by its own times is found this much later.
constexpr milliseconds scanInterval{100};
// A store that cannot be read is looked at again after this, and then ever more rarely.
constexpr milliseconds firstRetry{1000};
constexpr milliseconds lastRetry{60000};
constexpr int64_t settledAfterNs = 20'000'000;  // more than a tick of the kernel's clock
constexpr off_t leastStore = 8192;              // bytes; a smaller file is still being made

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

// A store's file, to know it again.
struct StoreFile {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = -1;  // -1: there is none to read
  bool same(const StoreFile& other) const { return device == other.device && inode == other.inode; }
};

// Both files are looked at before LMDB maps them, which trusts their sizes.
StoreFile storeFile(const std::string& directory) {
  struct stat data {};
  struct stat lock {};
  const std::string path = directory + "/brine.mdb";
  if (stat(path.c_str(), &data) != 0 || stat((path + "-lock").c_str(), &lock) != 0) return {};
  if (data.st_size < leastStore || lock.st_size < leastStore) return {};
  return {data.st_dev, data.st_ino, data.st_size};
}

// Where LMDB says what its newest commits are.
std::string headOf(const std::string& path) {
  std::string head(leastStore, '\0');
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t size = file.get() < 0 ? 0 : pread(file.get(), head.data(), head.size(), 0);
  head.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return head;
}

// LMDB would trip over a damaged page. A writer that commits meanwhile makes sound pages look
// damaged; but it has looked through the store itself before it wrote there.
bool isSound(const std::string& path) {
  const std::string before = headOf(path);
  return Brine::damageOf(path).empty() || headOf(path) != before;
}

// One forwarding agent's store, as far as it can be read.
class Collection {
 public:
  explicit Collection(std::string directory) : directory_(std::move(directory)) {}

  void maybeOpen(Clock::time_point now) {
    const StoreFile file = storeFile(directory_);
    const bool cutOff = file.size < file_.size;
    if (cutOff || !file.same(file_)) {
      reader_.reset();
      wait_ = {};
      retryAt_ = now;
    }
    file_ = file;
    if (reader_ || file_.size < 0 || now < retryAt_) return;
    doOpen(now);
  }

  void read(std::string_view name, std::vector<FlowCount>* out) {
    if (!reader_) return;
    try {
      const auto bytes = reader_->snapshot()->get(flowCountersTable, Brine::asBytes(name));
      if (const auto count = bytes ? FlowCountRecord::decode(*bytes) : std::nullopt) {
        out->push_back(*count);
      }
    } catch (const Brine::StoreError&) {
      handleTrouble(Clock::now());
    }
  }

  bool empty() {
    bool none = true;
    if (!reader_) return none;
    try {
      reader_->snapshot()->forEach(flowCountersTable,
                                   [&](Brine::Bytes, Brine::Bytes) { return none = false; });
    } catch (const Brine::StoreError&) {
      handleTrouble(Clock::now());
    }
    return none;
  }

 private:
  void doOpen(Clock::time_point now) {
    try {
      if (!isSound(directory_ + "/brine.mdb")) return handleTrouble(now);
      reader_ = Brine::Reader::open(directory_);
      wait_ = {};
    } catch (const Brine::StoreError&) {
      handleTrouble(now);
    }
  }

  void handleTrouble(Clock::time_point now) {
    reader_.reset();
    wait_ = std::clamp(2 * wait_, firstRetry, lastRetry);
    retryAt_ = now + wait_;
  }

  const std::string directory_;
  StoreFile file_;
  std::unique_ptr<Brine::Reader> reader_;  // null: it cannot be read (yet)
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
