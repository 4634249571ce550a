// The names of flows, and the writer of one forwarding agent's counts.
#include "platform/lattice/counters/FlowCounters.h"

#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "platform/brine/StateDirectory.h"
#include "platform/lattice/counters/FlowCountersLayout.h"
#include "platform/lattice/records/Packing.h"

namespace Lattice {
namespace {

namespace fs = std::filesystem;

constexpr size_t maxNameBytes = 64;
constexpr size_t maxFlowNameBytes = 500;
// Of address space and of the file's length, nearly all of it a hole: room for tens of millions.
constexpr size_t maxStoreBytes = size_t{8} * 1024 * 1024 * 1024;

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

struct FileId {
  dev_t device = 0;
  ino_t inode = 0;
  friend bool operator==(const FileId&, const FileId&) = default;
};

FileId fileId(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

// What an earlier process left is of no worth, so a store that is lost is not kept.
std::unique_ptr<Brine::Store> opened(const std::string& directory) {
  const Brine::StoreOptions options{
      .directory = directory, .maxBytes = maxStoreBytes, .maxTables = 4};
  auto why = Brine::Trouble::damaged;
  try {
    return Brine::Store::open(options);
  } catch (const Brine::StoreError& error) {
    if (!Brine::isLoss(error.trouble)) throw;
    why = error.trouble;
  }
  std::string aside;
  auto store = Brine::Store::rebuild(options, why, &aside);
  std::error_code ignored;
  fs::remove_all(aside, ignored);
  return store;
}

void requireName(std::string_view name) {
  if (name.size() <= maxFlowNameBytes) return;
  throw std::invalid_argument("a flow's name of " + std::to_string(name.size()) +
                              " bytes cannot be counted under; 500 bytes can");
}

class FlowCounterWriterImpl final : public FlowCounterWriter {
 public:
  explicit FlowCounterWriterImpl(const std::string& directory)
      : store_(opened(directory)),
        table_(store_->table(flowCountersTable)),
        directory_(directory),
        folder_(fileId(directory)) {
    store_->eraseAll(table_);
    commit();
  }

  void countIs(std::string_view name, const FlowCount& total) override {
    requireName(name);
    FlowCountRecord::encode(total,
                            store_->reserve(table_, Brine::asBytes(name), FlowCountRecord::size));
  }
  void countDel(std::string_view name) override {
    requireName(name);
    store_->erase(table_, Brine::asBytes(name));
  }
  void commit() override {
    store_->commit(Brine::Store::Filling::takeAll);
  }  // counts are not undone
  bool reachable() const override { return fileId(directory_) == folder_; }

 private:
  const std::unique_ptr<Brine::Store> store_;
  const Brine::TableNumber table_;
  const std::string directory_;
  const FileId folder_;
};

}  // namespace

std::string buildFlowName(uint64_t entryHandle) { return "flow-" + std::to_string(entryHandle); }
std::string flowCounterName(uint64_t entryHandle) { return buildFlowName(entryHandle) + "-p4rt"; }

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

void FlowCountRecord::encode(const FlowCount& count, std::span<uint8_t> bytes) {
  storeAt(bytes.data(), count.bytes);
  storeAt(bytes.data() + 8, count.packets);
}

std::optional<FlowCount> FlowCountRecord::decode(Brine::Bytes bytes) {
  if (bytes.size() != size) return std::nullopt;
  return FlowCount{loadAt<uint64_t>(bytes.data()), loadAt<uint64_t>(bytes.data() + 8)};
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
