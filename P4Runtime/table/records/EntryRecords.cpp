#include "P4Runtime/table/records/EntryRecords.h"

#include <algorithm>
#include <cassert>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {

void EntryRecords::mount() {
  const std::string path = cachePath;
  tableCache_ = Vela::make<TableCache>(tableInfo_, handles_);
  memberCache_ = Vela::make<ActionProfileMemberCache>(*store_, path + "actionProfileMember");
  groupCache_ = Vela::make<ActionProfileGroupCache>(*store_, path + "actionProfileGroup");
  metadataTable_ = store_->table(path + "metadata");
  letGo_ = false;
}

void EntryRecords::letGo() {
  letGo_ = true;
  tableCache_ = nullptr;
  memberCache_ = nullptr;
  groupCache_ = nullptr;
  metadataTable_.reset();
}

bool EntryRecords::isEmpty() const {
  const auto hasRows = [this](const std::string& table) {
    const bool isRowTable =
        table.starts_with(Lattice::rowTablePrefix) || table.starts_with(Lattice::keptPrefix);
    return isRowTable && store_->count(store_->table(table)) > 0;
  };
  return memberCache_->recordCount() + groupCache_->recordCount() == 0 &&
         std::ranges::none_of(store_->tableNames(), hasRows);
}

bool EntryRecords::has(const CacheKey& key) const {
  if (!isMounted()) return false;
  if (key.rid.type == actionProfileResource) return memberCache_->stored(key).has_value();
  if (key.rid.type == groupTableResource) return groupCache_->stored(key).has_value();
  return tableCache_->cacheHas(key);
}

void EntryRecords::recordDel(const CacheKey& key) {
  if (!isMounted()) return;
  if (key.rid.type == actionProfileResource) {
    memberCache_->cacheDel(key);
  } else if (key.rid.type == groupTableResource) {
    groupCache_->cacheDel(key);
  } else if (key.rid.type == tableResource) {
    tableCache_->cacheDel(key);
  } else {
    Vela::tellError("unhandled resource id {}", toText(key.rid));
    assert(!"unhandled resource id");
  }
}

void EntryRecords::delAll() {
  if (!isMounted()) return;
  memberCache_->cacheDelAll();
  groupCache_->cacheDelAll();
  store_->eraseAll(*metadataTable_);
}

void EntryRecords::metadataIs(const CacheKey& key, std::string_view metadata) {
  if (!metadataTable_) return;
  if (!metadata.empty()) {
    store_->put(*metadataTable_, storedKey(key), Brine::asBytes(metadata));
  } else if (store_->count(*metadataTable_) > 0) {
    store_->erase(*metadataTable_, storedKey(key));
  }
}

std::string EntryRecords::metadata(const CacheKey& key) const {
  if (!metadataTable_ || store_->count(*metadataTable_) == 0) return {};
  const auto stored = store_->get(*metadataTable_, storedKey(key));
  return stored ? std::string(Brine::asText(*stored)) : std::string();
}

void EntryRecords::metadataDel(Brine::Bytes storedKey) {
  store_->erase(*metadataTable_, storedKey);
}

}  // namespace P4Runtime
