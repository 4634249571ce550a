// Reads the counts of all forwarding agents: keeps their files open, and looks for what came, went
// or was replaced at the price of one fstat() a look-up.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <utility>

#include "platform/lattice/counters/FlowCountersLayout.h"
#include "platform/lattice/counters/FlowCountersLookup.h"
#include "platform/vela/Descriptors.h"

namespace Lattice {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What the folder of folders does not tell by its own times is found this much later.
constexpr milliseconds scanInterval{100};
// A file that cannot be read is looked at again after this, and then ever more rarely.
constexpr milliseconds firstRetry{100};
constexpr milliseconds lastRetry{60000};
constexpr int64_t settledAfterNs = 20'000'000;  // more than a tick of the kernel's clock

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

// A file of counts, to know it again.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;  // 0: no file
  friend bool operator==(const FileId&, const FileId&) = default;
};

FileId fileId(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

// The counts of one forwarding agent, as far as they can be read.
class Collection {
 public:
  explicit Collection(std::string path) : path_(std::move(path)) {}

  void maybeOpen(Clock::time_point now) {
    const FileId file = fileId(path_);
    if (file != file_) {
      lookup_.reset();
      wait_ = {};
      retryAt_ = now;
    }
    file_ = file;
    if (lookup_ || file_.inode == 0 || now < retryAt_) return;
    doOpen(now);
  }

  void read(FlowHash hash, std::vector<FlowCount>* out) {
    const auto head = newestHead();
    if (const auto count = head ? lookup_->find(*head, hash) : std::nullopt) {
      out->push_back(*count);
    }
  }

  bool empty() {
    const auto head = newestHead();
    return !head || !lookup_->hasAnyCount(*head);
  }

 private:
  // Of the file that is there now. Nothing when it cannot be read.
  std::optional<CountsHead> newestHead() {
    auto head = openHead();
    for (int replaced = 0; head && head->replaced != 0 && replaced < mostReplaced; ++replaced) {
      maybeOpen(Clock::now());
      head = openHead();
    }
    return head;
  }

  std::optional<CountsHead> openHead() {
    if (!lookup_) return std::nullopt;
    const auto head = lookup_->head();
    if (!head) handleTrouble(Clock::now());
    return head;
  }

  void doOpen(Clock::time_point now) {
    lookup_ = FlowCountersLookup::open(path_);
    if (lookup_) {
      wait_ = {};
    } else {
      handleTrouble(now);
    }
  }

  void handleTrouble(Clock::time_point now) {
    lookup_.reset();
    wait_ = std::clamp(2 * wait_, firstRetry, lastRetry);
    retryAt_ = now + wait_;
  }

  static constexpr int mostReplaced = 3;  // in a row, by a writer whose file grows

  const std::string path_;
  FileId file_;
  std::unique_ptr<FlowCountersLookup> lookup_;  // null: it cannot be read (yet)
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
    const FlowHash hash = flowHash(name);
    for (auto& [folder, collection] : collections_) collection.read(hash, out);
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
    descriptor_ = Vela::UniqueFd(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    seen_ = state(descriptor_.get());
    timespec clock{};
    clock_gettime(CLOCK_REALTIME, &clock);
    settled_ = !seen_.there || nanoseconds(clock) - seen_.modifiedNs > settledAfterNs;
    const std::vector<std::string> folders = foldersThere();
    std::erase_if(collections_, [&](const auto& known) {
      return std::ranges::find(folders, known.first) == folders.end();
    });
    for (const std::string& folder : folders) {
      const std::string path = root_ + "/" + folder + "/" + countsName;
      collections_.try_emplace(folder, path).first->second.maybeOpen(now);
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
  Vela::UniqueFd descriptor_;  // of the root, or none
  FolderState seen_;           // at the newest scan
  bool settled_ = false;
  Clock::time_point nextScan_{};
  std::map<std::string, Collection> collections_;  // by folder
};

}  // namespace

std::unique_ptr<FlowCounterReader> FlowCounterReader::create(const std::string& stateDirectory) {
  return std::make_unique<FlowCounterReaderImpl>(stateDirectory);
}

}  // namespace Lattice
