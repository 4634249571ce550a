#include "platform/brine/FileLookup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <optional>
#include <type_traits>

#include "platform/brine/Failure.h"
#include "platform/brine/LmdbFile.h"
#include "platform/brine/Records.h"
#include "platform/brine/StateDirectory.h"
#include "platform/brine/StoreHead.h"

namespace Brine {
namespace {

using namespace LmdbFile;

class FileLookupImpl final : public FileLookup {
 public:
  explicit FileLookupImpl(const std::string& directory) : directory_(directory) {
    requireRegularFiles(directory, Purpose::read);
    file_ = ::open(dataPath(directory).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file_ < 0) failed(errno, directory);
    try {
      readPageSize();
      requireVersion();
    } catch (...) {
      ::close(file_);
      throw;
    }
  }
  ~FileLookupImpl() override { ::close(file_); }

  std::optional<Bytes> get(std::string_view table, Bytes key) override {
    if (key.empty() || key.size() > plainKeyLimit) return std::nullopt;
    const auto stored = storedAt(table, key);
    if (!stored) return std::nullopt;
    const auto value = soundValue(key, *stored);
    if (!value) damaged("a record is not what was stored");
    return value;
  }

  size_t count(std::string_view table) override {
    return consistent([&](const Meta& head) { return findTable(head, table) ? tree_.entries : 0; });
  }

 private:
  [[noreturn]] void damaged(const std::string& what) const {
    throw StoreError(Trouble::damaged, "the store in " + directory_ + " is damaged (" + what + ")");
  }

  void read(uint64_t at, std::vector<uint8_t>& bytes) const {
    const ssize_t size = pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(at));
    if (size < 0) failed(errno, directory_);
    if (static_cast<size_t>(size) < bytes.size()) damaged("the file is cut short");
  }

  void readPageSize() {
    std::vector<uint8_t> head(pageHead + sizeof(Meta));
    read(0, head);
    const uint32_t size = at<Meta>(head.data() + pageHead).free.pad;
    if (!std::has_single_bit(size) || size < 512 || size > 65536) damaged("it has no page size");
    page_.resize(size);
    heads_.resize(size + head.size());
  }

  void requireVersion() {
    const auto stored = storedAt(metaTable, asBytes(layoutKey));
    if (!stored || stored->size() != sizeof layoutVersion) damaged("it has no layout version");
    if (at<uint32_t>(stored->data()) == layoutVersion) return;
    throw StoreError(Trouble::wrongVersion,
                     "the store in " + directory_ + " is of another layout version");
  }

  std::optional<Bytes> storedAt(std::string_view table, Bytes key) {
    return consistent([&](const Meta& head) { return foundIn(head, table, key); });
  }

  // The third commit from now uses the pages of this one again, so a result counts when at most one
  // commit came meanwhile. A head that the writer was writing does not stay the same.
  template <typename Read>
  std::invoke_result_t<Read, const Meta&> consistent(Read readOne) {
    constexpr int triesBesideAWriter = 100;
    for (int i = 0; i < triesBesideAWriter; ++i) {
      const Meta head = newestHead();
      std::invoke_result_t<Read, const Meta&> found{};
      std::optional<StoreError> trouble;
      try {
        found = readOne(head);
      } catch (const StoreError& error) {
        trouble.emplace(error);
      }
      const Meta after = newestHead();
      const bool same = std::memcmp(&head, &heads_[headAt(head.transaction)], sizeof head) == 0;
      if (!same || after.transaction > head.transaction + 1) {
        treeOf_ = noPage;
        continue;
      }
      if (trouble) throw StoreError(*trouble);
      return found;
    }
    throw StoreError(Trouble::unavailable, "the store in " + directory_ +
                                               " changes faster than it can be read; try again");
  }

  // Where the head that the commit wrote stands in `heads_`.
  size_t headAt(uint64_t transaction) const { return pageHead + (transaction & 1) * page_.size(); }

  Meta newestHead() {
    read(0, heads_);
    const Meta first = at<Meta>(&heads_[headAt(0)]);
    const Meta second = at<Meta>(&heads_[headAt(1)]);
    for (const Meta& meta : {first, second}) {
      if (meta.magic != magic || meta.version != dataVersion || meta.free.pad != page_.size()) {
        damaged("it does not begin like a store");
      }
    }
    return second.transaction > first.transaction ? second : first;
  }

  // Finds the table's tree in that commit; false without such a table.
  bool findTable(const Meta& head, std::string_view table) {
    if (head.transaction == treeOf_ && table == treeName_) return true;
    treeOf_ = noPage;
    const auto node = nodeIn(head.main, asBytes(table));
    if (!node) return false;
    if (node->flags() != treeNode || node->size() != sizeof(Tree)) damaged("it lists no tables");
    tree_ = at<Tree>(node->data());
    treeName_ = table;
    treeOf_ = head.transaction;
    return true;
  }

  std::optional<Bytes> foundIn(const Meta& head, std::string_view table, Bytes key) {
    if (!findTable(head, table)) return std::nullopt;
    const auto node = nodeIn(tree_, key);
    if (!node) return std::nullopt;
    if (node->flags() != 0) damaged("a record is too large");
    return Bytes{node->data(), node->size()};
  }

  // Leaves the node's page in `page_`.
  std::optional<Node> nodeIn(const Tree& tree, Bytes key) {
    if (tree.root == noPage) return std::nullopt;
    if (tree.depth == 0 || tree.depth > maxDepth) damaged("a tree is of impossible depth");
    uint64_t number = tree.root;
    for (unsigned level = tree.depth; level > 1; --level) {
      const Page page = pageAt(number, true);
      number = nodeAt(page, upperBound(page, key, 1) - 1).child();
    }
    const Page page = pageAt(number, false);
    const size_t behind = upperBound(page, key, 0);
    if (behind == 0) return std::nullopt;
    const Node node = nodeAt(page, behind - 1);
    if (before(node.key(), key)) return std::nullopt;
    if (!node.fitsLeaf()) damaged("a record runs out of its page");
    return node;
  }

  // The first node from `from` on whose key is beyond this one.
  size_t upperBound(const Page& page, Bytes key, size_t from) const {
    size_t to = page.nodes;
    while (from < to) {
      const size_t middle = from + (to - from) / 2;
      if (before(key, nodeAt(page, middle).key())) {
        to = middle;
      } else {
        from = middle + 1;
      }
    }
    return from;
  }

  Page pageAt(uint64_t number, bool branch) {
    if (number < 2 || number > largestFile / page_.size()) damaged("a page is nowhere");
    read(number * page_.size(), page_);
    const auto page = pageIn(page_, number, branch);
    if (!page) damaged("page " + std::to_string(number) + " makes no sense");
    return *page;
  }

  Node nodeAt(const Page& page, size_t i) const {
    const auto node = page.node(i);
    if (!node) damaged("a page makes no sense");
    return *node;
  }

  static constexpr uint64_t largestFile = uint64_t{1} << 50;

  const std::string directory_;
  int file_ = -1;
  std::vector<uint8_t> heads_;  // of the first two pages
  std::vector<uint8_t> page_;
  // The table looked at last, as of a commit; noPage: none.
  uint64_t treeOf_ = noPage;
  std::string treeName_;
  Tree tree_{};
};

}  // namespace

std::unique_ptr<FileLookup> FileLookup::open(const std::string& directory) {
  return std::make_unique<FileLookupImpl>(directory);
}

}  // namespace Brine
