#include "platform/brine/FileCheck.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <span>
#include <vector>

namespace Brine {
namespace {

// LMDB's layout, data version 1, as on 64-bit little-endian machines.
constexpr uint32_t magic = 0xBEEFC0DE;
constexpr uint32_t dataVersion = 1;
constexpr uint64_t noPage = ~uint64_t{0};
constexpr size_t pageHead = 16;  // number u64 | pad u16 | flags u16 | lower u16 | upper u16
constexpr size_t nodeHead = 8;   // size u32 (of a branch: page u48) | flags u16 | key size u16
constexpr uint16_t branchFlag = 1, leafFlag = 2, overflowFlag = 4;
constexpr uint16_t bigNode = 1, treeNode = 2;
constexpr uint16_t maxDepth = 32;

struct Tree {
  uint32_t pad;  // of the free list's tree: the page size
  uint16_t flags;
  uint16_t depth;
  uint64_t branchPages, leafPages, overflowPages;
  uint64_t entries;
  uint64_t root;
};
static_assert(sizeof(Tree) == 48);

struct Meta {
  uint32_t magic;
  uint32_t version;
  uint64_t address;
  uint64_t mapSize;
  Tree free;
  Tree main;
  uint64_t lastPage;
  uint64_t transaction;
};
static_assert(sizeof(Meta) == 136);

template <typename T>
T at(const uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

struct Damage {
  std::string what;
};

class FileCheck {
 public:
  explicit FileCheck(std::span<const uint8_t> file) : file_(file) {}

  void run() {
    meta_ = newestMeta();
    if (meta_.lastPage >= file_.size() / pageSize_) throw Damage{"the file is cut short"};
    seen_.resize(meta_.lastPage + 1);
    checkTree(meta_.free, Kind::free);
    checkTree(meta_.main, Kind::main);
  }

 private:
  enum class Kind { free, main, table };

  Meta newestMeta() {
    const Meta first = metaAt(0);
    pageSize_ = first.free.pad;
    if (!std::has_single_bit(pageSize_) || pageSize_ < 512 || pageSize_ > 65536) {
      throw Damage{"it has no page size"};
    }
    const Meta second = metaAt(pageSize_);
    return second.transaction > first.transaction ? second : first;
  }

  Meta metaAt(size_t offset) const {
    if (file_.size() < offset + pageHead + sizeof(Meta)) throw Damage{"the file is cut short"};
    const Meta meta = at<Meta>(file_.data() + offset + pageHead);
    if (meta.magic != magic || meta.version != dataVersion) {
      throw Damage{"it does not begin like a store"};
    }
    return meta;
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
    checkPage(tree.root, tree.depth, kind, &entries);
    if (entries != tree.entries) throw Damage{"a tree has lost records"};
  }

  void checkPage(uint64_t number, unsigned levels, Kind kind, uint64_t* entries) {
    const uint8_t* bytes = page(number);
    const auto flags = at<uint16_t>(bytes + 10);
    const auto lower = at<uint16_t>(bytes + 12);
    const auto upper = at<uint16_t>(bytes + 14);
    const bool branch = levels > 1;
    if (at<uint64_t>(bytes) != number || (flags & 0xf) != (branch ? branchFlag : leafFlag) ||
        (flags & 0x60) != 0 || lower < pageHead || lower % 2 != 0 || upper < lower ||
        upper > pageSize_) {
      damagedPage(number);
    }
    const size_t nodes = (lower - pageHead) / 2;
    // LMDB takes it for granted that a branch has two children, but in the list of free pages.
    if (nodes < (branch && kind != Kind::free ? 2u : 1u)) damagedPage(number);
    for (size_t i = 0; i < nodes; ++i) {
      const auto offset = at<uint16_t>(bytes + pageHead + 2 * i);
      if (offset < upper || offset % 2 != 0 || offset + nodeHead > pageSize_) damagedPage(number);
      const Node node{bytes + offset, pageSize_ - offset};
      if (node.keyAndHead() > node.room) damagedPage(number);
      if (branch) {
        checkPage(node.child(), levels - 1, kind, entries);
      } else {
        checkLeafNode(number, node, kind);
        ++*entries;
      }
    }
  }

  struct Node {
    const uint8_t* bytes;
    size_t room;  // to the end of the page
    size_t keyAndHead() const { return nodeHead + at<uint16_t>(bytes + 6); }
    uint64_t child() const { return at<uint32_t>(bytes) | uint64_t{at<uint16_t>(bytes + 4)} << 32; }
    uint16_t flags() const { return at<uint16_t>(bytes + 4); }
    uint32_t size() const { return at<uint32_t>(bytes); }
    const uint8_t* data() const { return bytes + keyAndHead(); }
  };

  void checkLeafNode(uint64_t number, const Node& node, Kind kind) {
    const uint16_t flags = node.flags();
    const size_t inPage = flags == bigNode ? sizeof(uint64_t) : node.size();
    const bool wantsTree = kind == Kind::main;
    if (node.keyAndHead() + inPage > node.room || node.keyAndHead() == nodeHead ||
        (wantsTree ? flags != treeNode : flags > bigNode)) {
      damagedPage(number);
    }
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
    const bool keyed = node.keyAndHead() == nodeHead + sizeof(uint64_t);
    if (!keyed || node.size() < sizeof(uint64_t)) damagedPage(number);
    const auto count = at<uint64_t>(data);
    if (count > node.size() / sizeof(uint64_t) - 1) damagedPage(number);
    uint64_t before = meta_.lastPage + 1;
    for (uint64_t i = 1; i <= count; ++i) {
      const auto free = at<uint64_t>(data + i * sizeof(uint64_t));
      if (free >= before) damagedPage(number);
      before = free;
      page(free);
    }
  }

  std::span<const uint8_t> file_;
  size_t pageSize_ = 0;
  Meta meta_{};
  std::vector<bool> seen_;
};

}  // namespace

std::string damageOf(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};  // LMDB tells why, or makes one
  struct stat status {};
  fstat(file, &status);
  const auto size = static_cast<size_t>(status.st_size);
  void* mapped = size > 0 ? mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0) : MAP_FAILED;
  ::close(file);
  if (size == 0) return {};
  if (mapped == MAP_FAILED) return "it cannot be mapped";
  std::string damage;
  try {
    FileCheck({static_cast<const uint8_t*>(mapped), size}).run();
  } catch (const Damage& found) {
    damage = found.what;
  }
  munmap(mapped, size);
  return damage;
}

}  // namespace Brine
