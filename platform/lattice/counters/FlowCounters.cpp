// The names of flows, and the writer of one forwarding agent's counts.
#include "platform/lattice/counters/FlowCounters.h"

#include <absl/container/flat_hash_map.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/brine/StateDirectory.h"
#include "platform/brine/Store.h"
#include "platform/lattice/counters/FlowCountersFile.h"

namespace Lattice {
namespace {

constexpr size_t maxNameBytes = 64;
constexpr size_t maxFlowNameBytes = 500;
// Files of former versions, which nobody reads any more.
constexpr const char* formerFiles[] = {"brine.mdb", "brine.mdb-lock", "brine.writer"};

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

void requireName(std::string_view name) {
  if (!name.empty() && name.size() <= maxFlowNameBytes) return;
  throw std::invalid_argument("a flow's name of " + std::to_string(name.size()) +
                              " bytes cannot be counted under; 1 to 500 bytes can");
}

uint64_t slotsFor(uint64_t counts) { return std::max(fewestSlots, std::bit_ceil(2 * counts)); }

class FlowCounterWriterImpl final : public FlowCounterWriter {
 public:
  explicit FlowCounterWriterImpl(const std::string& directory) : folder_(directory) {
    const Vela::UniqueFd former = formerFile();
    file_ = std::make_unique<FlowCountersFile>(folder_, fewestSlots);
    file_->takePlace();
    if (former) sayReplaced(former.get());
    for (const char* file : formerFiles) unlinkat(folder_.descriptor(), file, 0);
  }

  void countIs(std::string_view name, const FlowCount& total) override {
    requireName(name);
    changes_[flowHash(name)] = total;
  }
  void countDel(std::string_view name) override {
    requireName(name);
    changes_[flowHash(name)] = std::nullopt;
  }
  void commit() override {
    const Changes changes = std::exchange(changes_, {});
    makeRoomFor(changes);
    for (const auto& [hash, count] : changes) {
      if (count) {
        file_->countIs(hash, *count);
      } else {
        file_->countDel(hash);
      }
    }
    maybeShrink();
  }
  bool reachable() const override { return file_->isInPlace(); }

 private:
  struct Hash {
    size_t operator()(const FlowHash& hash) const { return hash.low; }
  };
  using Changes = absl::flat_hash_map<FlowHash, std::optional<FlowCount>, Hash>;

  // Throws Brine::StoreError when something is there that is no file.
  Vela::UniqueFd formerFile() const {
    const std::string path = folder_.path() + "/" + countsName;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return {};
    return Vela::UniqueFd(Brine::openedFile(folder_.path(), path));
  }
  void makeRoomFor(const Changes& changes) {
    const auto isNew = [&](const auto& change) {
      return change.second && !file_->hasCount(change.first);
    };
    const auto more = static_cast<uint64_t>(std::ranges::count_if(changes, isNew));
    if (!file_->hasRoomFor(more)) replaceFile(slotsFor(file_->counts() + more));
  }
  void maybeShrink() {
    if (file_->slots() == fewestSlots || 8 * file_->counts() >= file_->slots()) return;
    try {
      replaceFile(slotsFor(2 * file_->counts()));
    } catch (const Brine::StoreError&) {  // the next commit tries again
    }
  }
  void replaceFile(uint64_t slots) {
    auto next = std::make_unique<FlowCountersFile>(folder_, slots);
    file_->copyCountsTo(*next);
    next->takePlace();
    std::swap(file_, next);
    next->sayReplaced();
  }

  const CountsFolder folder_;
  std::unique_ptr<FlowCountersFile> file_;
  Changes changes_;  // since the last commit; nothing: deleted
};

}  // namespace

std::string buildFlowName(uint64_t entryHandle) { return "flow-" + std::to_string(entryHandle); }
std::string flowCounterName(uint64_t entryHandle) { return buildFlowName(entryHandle) + "-p4rt"; }

std::string cellCounterName(uint32_t counterId, uint64_t index) {
  return "counter-" + std::to_string(counterId) + '-' + std::to_string(index);
}

std::string flowCountersFolder(std::string_view forwarderName) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string folder;
  for (const char c : forwarderName) {
    if (isPlain(c)) {
      folder += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    folder.append({'%', digits[byte >> 4], digits[byte & 15]});
  }
  return folder;
}

std::unique_ptr<FlowCounterWriter> FlowCounterWriter::create(const std::string& stateDirectory,
                                                             const std::string& forwarderName) {
  if (forwarderName.empty() || forwarderName.size() > maxNameBytes) {
    throw Brine::StoreError(Brine::Trouble::unwritable,
                            "no counters for a forwarding agent with a name of " +
                                std::to_string(forwarderName.size()) +
                                " bytes; choose one of 1 to 64");
  }
  const std::string root = flowCountersRoot(stateDirectory);
  for (const std::string& directory : {stateDirectory, root}) Brine::prepareDirectory(directory);
  return std::make_unique<FlowCounterWriterImpl>(root + "/" + flowCountersFolder(forwarderName));
}

}  // namespace Lattice
