// Longest-prefix match: a trie of six bits a level whose nodes hold nothing that is empty.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdlib>

namespace P4 {

struct Entry;

// A node covers six bits. `prefixes` tells which of the 63 prefixes of 0 to 5 bits have an entry,
// `children` which of the 64 values go on; the arrays hold just those, in the order of the bits.
// A look-up costs a cache line or two a level, however many entries there are.
class PrefixTrie {
 public:
  PrefixTrie() = default;
  ~PrefixTrie() { clear(root_); }
  PrefixTrie(const PrefixTrie&) = delete;
  PrefixTrie& operator=(const PrefixTrie&) = delete;

  // `key`: words, the highest first, the field's bits at their top, and one word of any value
  // behind them. Null when no prefix matches.
  const Entry* find(const uint64_t* key) const;
  // The entry of exactly this prefix, or null.
  Entry* same(const uint64_t* key, uint32_t length) const;
  void insert(const uint64_t* key, uint32_t length, Entry* entry);
  void remove(const uint64_t* key, uint32_t length);
  bool empty() const { return root_.prefixes == 0 && root_.children == 0; }

 private:
  struct Node {
    uint64_t prefixes = 0;
    uint64_t children = 0;
    Entry** entries = nullptr;
    Node* nodes = nullptr;
  };

  static bool removeBelow(Node& node, const uint64_t* key, uint32_t length, uint32_t at);
  static void clear(Node& node);

  Node root_;
};

}  // namespace P4
