#include "p4/match/PrefixIndex.h"

namespace P4 {

const PrefixTrie* PrefixIndex::trieOf(const uint64_t* key) const {
  const auto found = branches_.find(hashWords(key, exactWords_));
  if (found == branches_.end()) return nullptr;
  for (const auto& branch : found->second)
    if (equalWords(branch->words.data(), key, exactWords_)) return &branch->trie;
  return nullptr;
}

Entry* PrefixIndex::same(const Entry& entry) const {
  const PrefixTrie* trie = exactWords_ == 0 ? &only_ : trieOf(entry.value());
  return trie ? trie->same(entry.value() + exactWords_, entry.prefixLength) : nullptr;
}

void PrefixIndex::insert(Entry* entry) {
  const uint64_t* key = entry->value();
  if (exactWords_ == 0) return only_.insert(key, entry->prefixLength, entry);
  auto* trie = const_cast<PrefixTrie*>(trieOf(key));
  if (!trie) {
    auto branch = std::make_unique<Branch>();
    branch->words.assign(key, key + exactWords_);
    trie = &branch->trie;
    branches_[hashWords(key, exactWords_)].push_back(std::move(branch));
  }
  trie->insert(key + exactWords_, entry->prefixLength, entry);
}

void PrefixIndex::remove(Entry* entry) {
  const uint64_t* key = entry->value();
  if (exactWords_ == 0) return only_.remove(key, entry->prefixLength);
  const auto found = branches_.find(hashWords(key, exactWords_));
  if (found == branches_.end()) return;
  std::vector<std::unique_ptr<Branch>>& list = found->second;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!equalWords(list[i]->words.data(), key, exactWords_)) continue;
    list[i]->trie.remove(key + exactWords_, entry->prefixLength);
    if (list[i]->trie.empty()) list.erase(list.begin() + static_cast<ptrdiff_t>(i));
    break;
  }
  if (list.empty()) branches_.erase(found);
}

}  // namespace P4
