// The layout of an LMDB file, data version 1, as on 64-bit little-endian machines. For looking at
// files that cannot be trusted: nothing here reads beyond the bytes that it is given.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace Brine::LmdbFile {

constexpr uint32_t magic = 0xBEEFC0DE;
constexpr uint32_t dataVersion = 1;
constexpr uint64_t noPage = ~uint64_t{0};
constexpr size_t pageHead = 16;  // number u64 | pad u16 | flags u16 | lower u16 | upper u16
constexpr size_t nodeHead = 8;   // size u32 (of a branch: page u48) | flags u16 | key size u16
constexpr uint16_t branchFlag = 1, leafFlag = 2, overflowFlag = 4;
constexpr uint16_t bigNode = 1, treeNode = 2;
constexpr uint16_t maxDepth = 32;
constexpr uint16_t integerKeys = 8;  // of the lists of free pages
constexpr size_t largestKey = 511;

struct Tree {
  uint32_t pad;  // of the free list's tree: the page size
  uint16_t flags;
  uint16_t depth;
  uint64_t branchPages, leafPages, overflowPages;
  uint64_t entries;
  uint64_t root;
};
static_assert(sizeof(Tree) == 48);

// Two of them stand behind the heads of the first two pages; commits take turns with them.
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

using Key = std::span<const uint8_t>;

inline bool before(Key a, Key b) {
  const int order = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
  return order != 0 ? order < 0 : a.size() < b.size();
}

struct Node {
  const uint8_t* bytes;
  size_t room;  // to the end of the page
  size_t keyAndHead() const { return nodeHead + at<uint16_t>(bytes + 6); }
  uint64_t child() const { return at<uint32_t>(bytes) | uint64_t{at<uint16_t>(bytes + 4)} << 32; }
  uint16_t flags() const { return at<uint16_t>(bytes + 4); }
  uint32_t size() const { return at<uint32_t>(bytes); }
  Key key() const { return {bytes + nodeHead, at<uint16_t>(bytes + 6)}; }
  const uint8_t* data() const { return bytes + keyAndHead(); }
  // What it takes of a leaf, or of a branch, whose nodes are heads and keys.
  size_t inLeaf() const { return keyAndHead() + (flags() == bigNode ? sizeof(uint64_t) : size()); }
  size_t inBranch() const { return keyAndHead(); }
  bool fitsLeaf() const { return inLeaf() <= room; }
};

// A branch or a leaf.
struct Page {
  const uint8_t* bytes;
  size_t size;
  bool branch;
  uint16_t upper;
  size_t nodes;

  // Nothing when it cannot be a node. A branch's first key stands for all smaller ones; its bytes
  // do not count.
  std::optional<Node> node(size_t i) const {
    const auto offset = at<uint16_t>(bytes + pageHead + 2 * i);
    if (offset < upper || offset % 2 != 0 || offset + nodeHead > size) return std::nullopt;
    const Node node{bytes + offset, size - offset};
    if (node.keyAndHead() > node.room || node.key().size() > largestKey) return std::nullopt;
    return node;
  }
};

// Nothing when the bytes cannot be that page.
inline std::optional<Page> pageIn(std::span<const uint8_t> bytes, uint64_t number, bool branch) {
  const auto flags = at<uint16_t>(bytes.data() + 10);
  const auto lower = at<uint16_t>(bytes.data() + 12);
  const auto upper = at<uint16_t>(bytes.data() + 14);
  const bool sound = at<uint64_t>(bytes.data()) == number &&
                     (flags & 0x6f) == (branch ? branchFlag : leafFlag) && lower > pageHead &&
                     lower % 2 == 0 && upper >= lower && upper <= bytes.size();
  if (!sound) return std::nullopt;
  return Page{bytes.data(), bytes.size(), branch, upper, (lower - pageHead) / 2};
}

}  // namespace Brine::LmdbFile
