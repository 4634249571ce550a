// The names of entries, members and groups in messages and lists.
#pragma once

#include <optional>
#include <string>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/EntryRecords.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class EntryNames {
 public:
  EntryNames(P4TableInfo& tableInfo, const P4HandleMgr& handles, const EntryRecords& records)
      : tableInfo_(tableInfo), handles_(handles), records_(records) {}

  // "table ingress.ipv4, ipv4_dst=10.0.0.0/8", "member 7 of action profile ingress.wcmp".
  std::string text(EntryHandle handle) const;
  // Of the last change of the handle's row; 0 without such a row.
  uint64_t rowSequence(EntryHandle handle) const;

 private:
  std::optional<std::string> nameOf(const std::string& type, uint32_t number) const;
  CacheKey cacheKey(EntryHandle handle) const;
  std::string memberOrGroupText(const CacheKey& key) const;
  uint32_t controllersId(const CacheKey& key) const;
  std::optional<std::string> rowKey(const CacheKey& cached) const;

  P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
  const EntryRecords& records_;
};

}  // namespace P4Runtime
