#include "platform/brine/FileCheck.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

#include "platform/brine/Failure.h"
#include "platform/brine/LmdbFile.h"

namespace Brine {
namespace {

using namespace LmdbFile;

struct Damage {
  std::string what;
};

// A file, mapped as it is.
class MappedFile {
 public:
  MappedFile(const std::string& directory, const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0 && errno == ENOENT) return;
    if (file < 0) failed(errno, directory, path);
    struct stat status {};
    int error = fstat(file, &status) == 0 ? 0 : errno;
    const auto size = static_cast<size_t>(status.st_size);
    if (error == 0 && size > 0) {
      void* mapped = mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
      error = mapped == MAP_FAILED ? errno : 0;
      if (error == 0) bytes_ = {static_cast<const uint8_t*>(mapped), size};
    }
    ::close(file);
    if (error != 0) failed(error, directory, path);
  }
  ~MappedFile() {
    if (!bytes_.empty()) munmap(const_cast<uint8_t*>(bytes_.data()), bytes_.size());
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  std::span<const uint8_t> bytes() const { return bytes_; }

 private:
  std::span<const uint8_t> bytes_;
};

class FileCheck {
 public:
  explicit FileCheck(std::span<const uint8_t> file) : file_(file) { readHeads(); }

  void checkNewest() {
    meta_ = heads_[heads_[1].transaction > heads_[0].transaction];
    begin();
    checkTree(meta_.free, Kind::free);
    checkTree(meta_.main, Kind::main);
  }
  // LMDB's commits take turns with the two heads.
  void checkCommit(uint64_t transaction) {
    meta_ = heads_[transaction & 1];
    if (meta_.transaction != transaction) throw Damage{"its head is of another commit"};
    begin();
    checkTree(meta_.main, Kind::main);
  }
  void checkHead() {
    meta_ = heads_[heads_[1].transaction > heads_[0].transaction];
    begin();
  }

  uint64_t pages() const { return meta_.lastPage + 1; }
  uint64_t freePages() const { return free_; }

 private:
  enum class Kind { free, main, table };

  void readHeads() {
    pageSize_ = headAt(0).free.pad;
    if (!std::has_single_bit(pageSize_) || pageSize_ < 512 || pageSize_ > 65536) {
      throw Damage{"it has no page size"};
    }
    heads_[0] = headAt(0);
    heads_[1] = headAt(pageSize_);
    if (heads_[1].free.pad != pageSize_) throw Damage{"it has two page sizes"};
  }

  Meta headAt(size_t offset) const {
    if (file_.size() < offset + pageHead + sizeof(Meta)) throw Damage{"the file is cut short"};
    const Meta meta = at<Meta>(file_.data() + offset + pageHead);
    if (meta.magic != magic || meta.version != dataVersion) {
      throw Damage{"it does not begin like a store"};
    }
    return meta;
  }

  // Of the flags, some are the file's and some the trees'.
  void begin() {
    if (meta_.lastPage >= file_.size() / pageSize_) throw Damage{"the file is cut short"};
    if ((meta_.free.flags & 0xff) != integerKeys || meta_.main.flags != 0) {
      throw Damage{"its trees are of another kind"};
    }
    seen_.resize(meta_.lastPage + 1);
  }

  [[noreturn]] static void damagedPage(uint64_t page) {
    throw Damage{"page " + std::to_string(page) + " makes no sense"};
  }

  // The bytes of a page that nothing else reaches.
  const uint8_t* page(uint64_t number) {
    if (number < 2 || number > meta_.lastPage || seen_[number]) damagedPage(number);
    seen_[number] = true;
    return file_.data() + number * pageSize_;
  }

  void checkTree(const Tree& tree, Kind kind) {
    if (tree.root == noPage) {
      if (tree.entries != 0) throw Damage{"a tree has no root"};
      return;
    }
    if (tree.depth == 0 || tree.depth > maxDepth) throw Damage{"a tree is of impossible depth"};
    uint64_t entries = 0;
    checkPage(tree.root, tree.depth, kind, {}, &entries);
    if (entries != tree.entries) throw Damage{"a tree has lost records"};
  }

  // The keys that may stand in a page: from the first on, below the second.
  struct Bounds {
    std::optional<Key> from;
    std::optional<Key> below;
  };

  void checkPage(uint64_t number, unsigned levels, Kind kind, Bounds bounds, uint64_t* entries) {
    const auto found = pageIn({page(number), pageSize_}, number, levels > 1);
    // LMDB takes it for granted that a branch has two children, but in the list of free pages.
    const size_t least = levels > 1 && kind != Kind::free ? 2 : 1;
    if (!found || found->nodes < least) damagedPage(number);
    if (found->branch) return checkBranch(*found, number, levels, kind, bounds, entries);
    std::optional<Key> former;
    size_t taken = 0;
    for (size_t i = 0; i < found->nodes; ++i) {
      const Node node = nodeAt(*found, number, i, kind);
      requireOrder(number, kind, former, node.key(), bounds);
      checkLeafNode(number, node, kind);
      former = node.key();
      taken += even(node.inLeaf());
    }
    requirePacked(*found, number, taken);
    *entries += found->nodes;
  }

  void checkBranch(const Page& page, uint64_t number, unsigned levels, Kind kind, Bounds bounds,
                   uint64_t* entries) {
    Node node = nodeAt(page, number, 0, kind);
    size_t taken = even(node.inBranch());
    std::optional<Key> from;
    for (size_t i = 1; i < page.nodes; ++i) {
      const Node next = nodeAt(page, number, i, kind);
      requireOrder(number, kind, from, next.key(), bounds);
      checkPage(node.child(), levels - 1, kind, {from ? from : bounds.from, next.key()}, entries);
      node = next;
      from = next.key();
      taken += even(next.inBranch());
    }
    requirePacked(page, number, taken);
    checkPage(node.child(), levels - 1, kind, {from ? from : bounds.from, bounds.below}, entries);
  }

  Node nodeAt(const Page& page, uint64_t number, size_t i, Kind kind) const {
    const auto node = page.node(i);
    if (!node) damagedPage(number);
    const size_t size = node->key().size();
    const bool right = kind == Kind::free ? size == sizeof(uint64_t) : size > 0;
    if (!right && !(page.branch && i == 0)) damagedPage(number);
    return *node;
  }

  static size_t even(size_t size) { return size + size % 2; }

  // Nodes fill the end of a page without gaps; LMDB moves them by the sizes that they name.
  static void requirePacked(const Page& page, uint64_t number, size_t taken) {
    if (taken != page.size - page.upper) damagedPage(number);
  }

  // LMDB finds keys by their order.
  static void requireOrder(uint64_t number, Kind kind, std::optional<Key> former, Key key,
                           Bounds bounds) {
    const auto ascend = kind == Kind::free ? numbersAscend : before;
    const bool above = former ? ascend(*former, key) : !bounds.from || !ascend(key, *bounds.from);
    if (!above || (bounds.below && !ascend(key, *bounds.below))) {
      throw Damage{"the keys of page " + std::to_string(number) + " are out of order"};
    }
  }

  static bool numbersAscend(Key a, Key b) {
    return at<uint64_t>(a.data()) < at<uint64_t>(b.data());
  }

  void checkLeafNode(uint64_t number, const Node& node, Kind kind) {
    const uint16_t flags = node.flags();
    const bool wantsTree = kind == Kind::main;
    if (!node.fitsLeaf() || (wantsTree ? flags != treeNode : flags > bigNode)) damagedPage(number);
    if (wantsTree) {
      if (node.size() != sizeof(Tree)) damagedPage(number);
      const Tree tree = at<Tree>(node.data());
      if (tree.flags != 0) damagedPage(number);
      return checkTree(tree, Kind::table);
    }
    const uint8_t* data = flags == bigNode ? overflow(node) : node.data();
    if (kind == Kind::free) checkFreeList(number, node, data);
  }

  const uint8_t* overflow(const Node& node) {
    const auto first = at<uint64_t>(node.data());
    const uint8_t* bytes = page(first);
    const auto pages = at<uint32_t>(bytes + 12);
    const bool fits = pages > 0 && pages - 1 <= meta_.lastPage - first &&
                      pageHead + uint64_t{node.size()} <= uint64_t{pages} * pageSize_;
    if (at<uint64_t>(bytes) != first || (at<uint16_t>(bytes + 10) & 0xf) != overflowFlag || !fits) {
      damagedPage(first);
    }
    for (uint32_t i = 1; i < pages; ++i) page(first + i);
    return bytes + pageHead;
  }

  // A count, then that many page numbers, descending; none of them may be in use.
  void checkFreeList(uint64_t number, const Node& node, const uint8_t* data) {
    if (node.size() < sizeof(uint64_t)) damagedPage(number);
    const auto count = at<uint64_t>(data);
    if (count > node.size() / sizeof(uint64_t) - 1) damagedPage(number);
    uint64_t former = meta_.lastPage + 1;
    for (uint64_t i = 1; i <= count; ++i) {
      const auto free = at<uint64_t>(data + i * sizeof(uint64_t));
      if (free >= former) damagedPage(number);
      former = free;
      page(free);
      ++free_;
    }
  }

  std::span<const uint8_t> file_;
  size_t pageSize_ = 0;
  Meta heads_[2]{};
  Meta meta_{};  // the head of the commit that is looked at
  std::vector<bool> seen_;
  uint64_t free_ = 0;
};

// The fault that `check` found; empty without one.
template <typename Check>
std::string damageFound(const MappedFile& file, Check check) {
  try {
    FileCheck found(file.bytes());
    check(found);
    return {};
  } catch (const Damage& damage) {
    return damage.what;
  }
}

}  // namespace

FileFinding checkFile(const std::string& directory, const std::string& path) {
  const MappedFile file(directory, path);
  FileFinding finding;
  if (file.bytes().empty()) return finding;
  finding.damage = damageFound(file, [&](FileCheck& check) {
    check.checkNewest();
    finding.pages = check.pages();
    finding.free = check.freePages();
  });
  return finding;
}

namespace {

template <typename Check>
std::string damageOfStore(const std::string& directory, Check check) {
  const MappedFile file(directory, dataPath(directory));
  if (file.bytes().empty()) failed(ENOENT, directory);
  return damageFound(file, check);
}

}  // namespace

std::string damageOfCommit(const std::string& directory, uint64_t transaction) {
  return damageOfStore(directory, [&](FileCheck& check) { check.checkCommit(transaction); });
}

std::string damageOfHead(const std::string& directory) {
  return damageOfStore(directory, [](FileCheck& check) { check.checkHead(); });
}

}  // namespace Brine
