// Rows as they were before some changes, as a test tells them to the forwarding agent.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "platform/lattice/Subscriber.h"

namespace ForwarderTest {

// The changes from the sequence number `first` on.
class FormerRows final : public Lattice::WholeCommit {
 public:
  explicit FormerRows(uint64_t first) : first_(first) {}
  // Of the next change: the row's value until then, or nothing.
  void add(const Lattice::FollowedTable& table, const std::string& key,
           const std::optional<std::string>& value, uint64_t entryHandle = 0) {
    rows_.push_front({&table, key, value, entryHandle});
  }
  bool has(uint64_t sequence) const override { return sequence >= first_; }
  bool visitFormer(const std::function<void(const Lattice::RowChange&)>& visit) const override {
    for (const auto& [table, key, value, handle] : rows_) {
      visit({.table = table,
             .key = key,
             .value = value ? std::string_view(*value) : std::string_view(),
             .deleted = !value,
             .entryHandle = handle});
    }
    return true;
  }

 private:
  struct Former {
    const Lattice::FollowedTable* table;
    std::string key;
    std::optional<std::string> value;
    uint64_t entryHandle;
  };
  const uint64_t first_;
  std::deque<Former> rows_;
};

}  // namespace ForwarderTest
