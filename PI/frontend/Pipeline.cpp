// One pipeline of a device and the entries written to it.
#include "PI/frontend/Pipeline.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/restore/FetchedTable.h"
#include "PI/frontend/restore/TableComparison.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/HeldNames.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/frontend/store/NameEntries.h"
#include "PI/target/pi_extensions_imp.h"
#include "p4/tmp/p4config.pb.h"

namespace pi::fe::proto {

namespace {

// Each entry of a million waits for memory: so many of them wait at the same time.
constexpr size_t kAdoptedTogether = 64;

uint64_t nextNumber() {
  static std::atomic<uint64_t> last{0};
  return ++last;
}

std::string deviceDataOf(const p4::v1::ForwardingPipelineConfig& config) {
  p4::tmp::P4DeviceConfig device;
  if (!device.ParseFromString(config.p4_device_config())) {
    refuse(code::invalidArgument,
           "the pipeline's p4_device_config is no serialized p4.tmp.P4DeviceConfig");
  }
  return device.device_data();
}

// Rows of the other kinds tell all by themselves.
bool isOfEntity(EntityKind kind) {
  return kind != EntityKind::idleTimeout && kind != EntityKind::watchPort;
}

// Its entries stand for nothing else, and nothing else is counted by them.
bool isKeptAlone(const TablePlan& table) {
  return table.entity == nullptr && table.profile == nullptr && !table.isConst &&
         !table.hasInitialEntries && table.unsupported.empty();
}

// Each entry of a million waits for memory: of most, key and action end in the next line.
void fetch(const Entry* entry) {
  constexpr size_t line = 64;
  __builtin_prefetch(entry);
  __builtin_prefetch(reinterpret_cast<const char*>(entry) + line);
}

pi_abilities_t abilitiesOf(const std::string& deviceData) {
  pi_abilities_t abilities{};
  _pi_abilities(deviceData.data(), deviceData.size(), &abilities);
  return abilities;
}

}  // namespace

Pipeline::Pipeline(const p4::v1::ForwardingPipelineConfig& config)
    : number_(nextNumber()),
      config_(config),
      deviceData_(deviceDataOf(config_)),
      abilities_(abilitiesOf(deviceData_)),
      index_(config_.p4info(), abilities_),
      packetHeaders_(config_.p4info(), abilities_.packet_headers != 0, &index_),
      p4info_{const_cast<P4InfoIndex*>(&index_)} {
  restored_.emplace(index_, *store_, use_);
}

std::vector<uint32_t> Pipeline::keepTables(const Pipeline& former,
                                           std::span<const uint32_t> tableIds) {
  std::vector<uint32_t> kept;
  if (!restored_ || std::memcmp(&abilities_, &former.abilities_, sizeof abilities_) != 0)
    return kept;
  const TableComparison comparison(former.config_.p4info(), config_.p4info());
  std::ranges::copy_if(tableIds, std::back_inserter(kept), [&](uint32_t id) {
    const TablePlan* const table = index_.table(id);
    return table != nullptr && isKeptAlone(*table) && comparison.entriesStay(id);
  });
  if (kept.empty()) return kept;
  store_ = former.store_;
  store_->keepTables(kept, index_);
  holdNamesOf(kept);
  restored_.emplace(index_, *store_, use_);
  return kept;
}

// Pairs of names and numbers are restored in any case.
void Pipeline::holdNamesOf(std::span<const uint32_t> tableIds) {
  constexpr size_t fetchedAhead = 32;
  NameHolders holders;
  const EntryStore::Snapshot snapshot(*store_);
  for (const uint32_t id : tableIds) {
    const TablePlan& table = *index_.table(id);
    if (!table.usesNames) continue;
    const std::vector<const Entry*> entries = snapshot.entries(id);
    for (size_t i = 0; i < entries.size(); ++i) {
      if (i + fetchedAhead < entries.size()) fetch(entries[i + fetchedAhead]);
      holders.add(table, *entries[i]);
    }
  }
  holders.holdAll();
}

bool Pipeline::equals(const p4::v1::ForwardingPipelineConfig& config) const {
  return config.p4_device_config() == config_.p4_device_config() &&
         google::protobuf::util::MessageDifferencer::Equals(config.p4info(), config_.p4info());
}

pi_status_t Pipeline::restoredMemberIs(uint32_t profileId, const pi_action_data_t* action,
                                       uint32_t controllerId, uint64_t handle) {
  if (!restored_) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restored_->memberIs(profileId, action, controllerId, handle);
}

pi_status_t Pipeline::restoredGroupIs(uint32_t profileId, uint32_t controllerId,
                                      std::span<const uint64_t> members, uint64_t handle,
                                      std::string_view bytes) {
  if (!restored_) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restored_->groupIs(profileId, controllerId, members, handle, bytes);
}

pi_status_t Pipeline::restoredEntryIs(uint32_t tableId, const pi_match_key_t& key,
                                      const pi_table_entry_t& given, uint64_t handle,
                                      uint64_t controllerMetadata, std::string_view metadata) {
  if (NamedType* type = index_.namedType(tableId)) return restoredNameIs(*type, key, given);
  const TablePlan* table = index_.table(tableId);
  if (table == nullptr) return PI_STATUS_NETV_INVALID_OBJ_ID;
  if ((key.priority != 0) != table->needsPriority || key.priority > INT32_MAX) {
    return PI_STATUS_UNSUPPORTED_ENTRY_PRIORITY;
  }
  std::optional<EntryPtr> entry = entryOf(*table, key, given, metadata.size());
  if (!entry) return PI_STATUS_INVALID_ENTRY_TYPE;
  (*entry)->handle = handle;
  (*entry)->controllerMetadata = controllerMetadata;
  if (!metadata.empty()) std::memcpy((*entry)->metadataData(), metadata.data(), metadata.size());
  if (table->entity != nullptr && isOfEntity(table->entity->kind)) {
    if (table == table->entity->list) return PI_STATUS_SUCCESS;  // the entity tells of its rows
    p4::v1::Entity entity;
    if (metadata.empty()) {
      entry = withEntity(**entry, entityOfRow(*table, **entry));
      bareEntities_.push_back(*entry);
    } else if (!readEntity(*table->entity, **entry, &entity)) {
      return PI_STATUS_INVALID_ENTRY_TYPE;
    }
  }
  const bool adopted = adoptEntry(*table, *std::move(entry));
  return adopted ? PI_STATUS_SUCCESS : PI_STATUS_INVALID_ENTRY_TYPE;
}

pi_status_t Pipeline::restoredNameIs(NamedType& type, const pi_match_key_t& key,
                                     const pi_table_entry_t& given) {
  const std::optional<EntryPtr> entry = entryOf(*type.table, key, given, 0);
  const auto pair = entry ? namePair(type, **entry) : std::nullopt;
  const bool isTaken = pair && type.names.restoredIs(pair->number, pair->name);
  return isTaken ? PI_STATUS_SUCCESS : PI_STATUS_INVALID_ENTRY_TYPE;
}

// The program's own entries need it as long as the pipeline runs.
pi_status_t Pipeline::constantNameIs(NamedType& type, const pi_match_key_t& key,
                                     const pi_table_entry_t* given) {
  if (key.data_size != kNumberBytes) return PI_STATUS_INVALID_ENTRY_TYPE;
  if (given != nullptr) {
    const pi_status_t status = restoredNameIs(type, key, *given);
    if (status != PI_STATUS_SUCCESS) return status;
  }
  type.names.hold(numberAt(reinterpret_cast<const uint8_t*>(key.data)));
  return PI_STATUS_SUCCESS;
}

pi_status_t Pipeline::constantEntryIs(uint32_t tableId, const pi_match_key_t& key,
                                      const pi_table_entry_t* given, uint64_t handle) {
  if (NamedType* type = index_.namedType(tableId)) return constantNameIs(*type, key, given);
  if (given != nullptr) {
    const pi_status_t status = restoredEntryIs(tableId, key, *given, handle, 0, {});
    if (status != PI_STATUS_SUCCESS) return status;
  }
  const TablePlan* table = index_.table(tableId);
  const bool isListed =
      table != nullptr && table->entity != nullptr && table == table->entity->list;
  if (isListed) return PI_STATUS_SUCCESS;  // the entity tells of its rows
  enterAdopted();
  const EntryPtr entry = store_->entry({tableId, key.priority, {key.data, key.data_size}});
  if (!entry) return PI_STATUS_INVALID_ENTRY_TYPE;
  entry->isConst = true;  // before controllers get in: nobody else has it
  return PI_STATUS_SUCCESS;
}

bool Pipeline::adoptEntry(const TablePlan& table, EntryPtr entry) {
  if (entry->kind == EntryKind::unresolved) {
    entry = restored_ ? restored_->resolve(table, *entry) : EntryPtr();
    if (!entry) return false;
  }
  holdNames(table, &table, *entry);
  if (table.profile != nullptr) {
    const EntryPtr former = store_->entry(entry->key());
    use_.countChange(*table.profile, former.get(), entry.get());
    store_->entryIs(std::move(entry));
    return true;
  }
  const size_t hash = entry->key().hash();
  adopted_.push_back({std::move(entry), hash});
  if (adopted_.size() >= kAdoptedTogether) enterAdopted();
  return true;
}

void Pipeline::enterAdopted() {
  store_->entriesAre(adopted_);
  adopted_.clear();
}

void Pipeline::fixedNamesAre(std::span<pi_fixed_name_t> names) {
  for (const auto& type : index_.namedTypes()) {
    std::vector<Dictionary::Pair> pairs;
    std::vector<pi_fixed_name_t*> given;
    for (pi_fixed_name_t& name : names) {
      if (type->names.type() != name.type) continue;
      pairs.push_back({name.number, {name.name, name.name_size}});
      given.push_back(&name);
    }
    const auto faults = type->names.fixedAre(pairs);
    for (size_t i = 0; i < given.size(); ++i) {
      given[i]->fault = faults[i] == Dictionary::Fault::none          ? PI_FIXED_NAME_TAKEN
                        : faults[i] == Dictionary::Fault::nameIsTaken ? PI_FIXED_NAME_HAS_NUMBER
                                                                      : PI_FIXED_NAME_NUMBER_TAKEN;
    }
  }
}

void Pipeline::restoreExpects(size_t entries) { store_->reserve(entries); }

bool Pipeline::doFinishRestore(const TargetSession& session) {
  bool complete = doAdoptInitialEntries(session);
  enterAdopted();
  complete &= doCompleteBareEntities(session);
  for (const auto& type : index_.namedTypes()) type->names.nameLost();
  if (restored_) {
    restored_->doDeleteUnclaimed(session);
    restored_->doMendWatchPorts(session);
  }
  restored_.reset();
  return complete;
}

// Constant entities come without metadata: their replicas and members are those of the rows.
bool Pipeline::doCompleteBareEntities(const TargetSession& session) {
  bool all = true;
  for (const EntryPtr& bare : std::exchange(bareEntities_, {})) {
    const TablePlan& table = *index_.table(bare->tableId);
    const EntityPlan& plan = *table.entity;
    const EntryPtr standing = store_->entry(bare->key());
    if (plan.list == nullptr || !standing) continue;
    p4::v1::Entity entity = entityOfRow(table, *bare);
    try {
      FetchedTable fetched(session, *plan.list);
      while (const EntryPtr row = fetched.next()) {
        if (isOf(plan, *row, *bare)) addListRow(plan, *row, &entity);
      }
    } catch (const Refusal&) {
      all = false;
    }
    const EntryPtr completed = withEntity(*standing, entity);
    holdNames(table, &table, *completed);
    store_->entryIs(completed);
  }
  return all;
}

bool Pipeline::doAdoptInitialEntries(const TargetSession& session) {
  bool all = true;
  for (const auto& table : index_.tables()) {
    if (!table->isConst && !table->hasInitialEntries) continue;
    if (!table->unsupported.empty()) continue;
    try {
      FetchedTable fetched(session, *table);
      while (EntryPtr entry = fetched.next()) {
        enterAdopted();
        if (!store_->entry(entry->key())) all &= adoptEntry(*table, std::move(entry));
      }
    } catch (const Refusal&) {
      all = false;
    }
  }
  return all;
}

}  // namespace pi::fe::proto
