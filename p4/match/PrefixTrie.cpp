#include "p4/match/PrefixTrie.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace P4 {
namespace {

constexpr uint32_t stride = 6;

// Six bits of the key from bit `at` on.
uint32_t chunk(const uint64_t* key, uint32_t at) {
  const uint32_t word = at / 64;
  const uint32_t bit = at % 64;
  if (bit <= 58) return static_cast<uint32_t>(key[word] >> (58 - bit)) & 63;
  const uint32_t high = static_cast<uint32_t>(key[word] << (bit - 58)) & 63;
  return high | static_cast<uint32_t>(key[word + 1] >> (122 - bit));
}

// A prefix of `length` bits (0 to 5) with the top bits of `value`.
uint32_t prefixBit(uint32_t value, uint32_t length) {
  return (1u << length) - 1 + (value >> (stride - length));
}

constexpr std::array<uint64_t, 64> allPrefixes = [] {
  std::array<uint64_t, 64> all{};
  for (uint32_t value = 0; value < 64; ++value)
    for (uint32_t length = 0; length < stride; ++length)
      all[value] |= uint64_t{1} << ((1u << length) - 1 + (value >> (stride - length)));
  return all;
}();

// As std::popcount(), which is a call where processors need not have an instruction for it.
uint32_t countOf(uint64_t set) {
  set -= set >> 1 & 0x5555555555555555;
  set = (set & 0x3333333333333333) + (set >> 2 & 0x3333333333333333);
  set = (set + (set >> 4)) & 0x0f0f0f0f0f0f0f0f;
  return static_cast<uint32_t>(set * 0x0101010101010101 >> 56);
}

uint32_t rankOf(uint64_t set, uint32_t bit) { return countOf(set & ((uint64_t{1} << bit) - 1)); }

// The array with a gap at `position`, or without the item there.
template <typename Item>
Item* widen(Item* items, uint32_t count, uint32_t position) {
  auto* wider =
      static_cast<Item*>(std::realloc(static_cast<void*>(items), (count + 1) * sizeof(Item)));
  if (!wider) throw std::bad_alloc();
  std::memmove(static_cast<void*>(wider + position + 1), wider + position,
               (count - position) * sizeof(Item));
  return wider;
}

template <typename Item>
Item* narrow(Item* items, uint32_t count, uint32_t position) {
  std::memmove(static_cast<void*>(items + position), items + position + 1,
               (count - position - 1) * sizeof(Item));
  if (count > 1) return items;  // room for the next
  std::free(static_cast<void*>(items));
  return nullptr;
}

}  // namespace

const Entry* PrefixTrie::find(const uint64_t* key) const {
  const Node* node = &root_;
  const Entry* best = nullptr;
  for (uint32_t at = 0;; at += stride) {
    // Reading past the key is no matter: a node without children covers the field's end.
    if (node->children == 0 && node->prefixes <= 1) {
      return node->prefixes ? node->entries[0] : best;
    }
    const uint32_t value = chunk(key, at);
    if (const uint64_t found = node->prefixes & allPrefixes[value]) {
      const auto longest = static_cast<uint32_t>(63 - std::countl_zero(found));
      best = node->entries[rankOf(node->prefixes, longest)];
    }
    if (!(node->children >> value & 1)) return best;
    node = &node->nodes[rankOf(node->children, value)];
  }
}

Entry* PrefixTrie::same(const uint64_t* key, uint32_t length) const {
  const Node* node = &root_;
  uint32_t at = 0;
  for (; length - at >= stride; at += stride) {
    const uint32_t value = chunk(key, at);
    if (!(node->children >> value & 1)) return nullptr;
    node = &node->nodes[rankOf(node->children, value)];
  }
  const uint32_t bit = length == at ? 0 : prefixBit(chunk(key, at), length - at);
  if (!(node->prefixes >> bit & 1)) return nullptr;
  return node->entries[rankOf(node->prefixes, bit)];
}

void PrefixTrie::insert(const uint64_t* key, uint32_t length, Entry* entry) {
  Node* node = &root_;
  uint32_t at = 0;
  for (; length - at >= stride; at += stride) {
    const uint32_t value = chunk(key, at);
    const uint32_t position = rankOf(node->children, value);
    if (!(node->children >> value & 1)) {
      const uint32_t count = countOf(node->children);
      node->nodes = widen(node->nodes, count, position);
      node->children |= uint64_t{1} << value;
      node->nodes[position] = Node();
    }
    node = &node->nodes[position];
  }
  const uint32_t bit = length == at ? 0 : prefixBit(chunk(key, at), length - at);
  const uint32_t position = rankOf(node->prefixes, bit);
  if (!(node->prefixes >> bit & 1)) {
    const uint32_t count = countOf(node->prefixes);
    node->entries = widen(node->entries, count, position);
    node->prefixes |= uint64_t{1} << bit;
  }
  node->entries[position] = entry;
}

void PrefixTrie::remove(const uint64_t* key, uint32_t length) {
  removeBelow(root_, key, length, 0);
}

// Whether the node is empty now.
bool PrefixTrie::removeBelow(Node& node, const uint64_t* key, uint32_t length, uint32_t at) {
  if (length - at >= stride) {
    const uint32_t value = chunk(key, at);
    if (!(node.children >> value & 1)) return false;
    const uint32_t position = rankOf(node.children, value);
    if (removeBelow(node.nodes[position], key, length, at + stride)) {
      const uint32_t count = countOf(node.children);
      node.nodes = narrow(node.nodes, count, position);
      node.children &= ~(uint64_t{1} << value);
    }
  } else {
    const uint32_t bit = length == at ? 0 : prefixBit(chunk(key, at), length - at);
    if (!(node.prefixes >> bit & 1)) return false;
    const uint32_t count = countOf(node.prefixes);
    node.entries = narrow(node.entries, count, rankOf(node.prefixes, bit));
    node.prefixes &= ~(uint64_t{1} << bit);
  }
  return node.prefixes == 0 && node.children == 0;
}

void PrefixTrie::clear(Node& node) {
  const uint32_t count = countOf(node.children);
  for (uint32_t i = 0; i < count; ++i) clear(node.nodes[i]);
  std::free(static_cast<void*>(node.entries));
  std::free(static_cast<void*>(node.nodes));
}

}  // namespace P4
