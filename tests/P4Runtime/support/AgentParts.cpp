#include "tests/P4Runtime/support/AgentParts.h"

#include <grpcpp/support/status.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "PI/int/pi_frontend_hooks.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/vela/ActivityLock.h"

namespace TestSupport {

using namespace P4Runtime;
using Vela::ActivityLock;

namespace {

constexpr pi_dev_id_t deviceId = 1;
constexpr size_t storeBytes = size_t{16} << 20;
constexpr pi_dev_id_t noServersDeviceId = 0;  // whose entries settle while there is no server

FakeFrontEnd& frontEndOf(void* cookie) { return *static_cast<FakeFrontEnd*>(cookie); }

pi_status_t takeBack(void* cookie, pi_dev_id_t, pi_p4_id_t table, const pi_match_key_t* key,
                     const pi_table_entry_t* entry, pi_entry_handle_t handle,
                     uint64_t controllerMetadata, const char* metadata, size_t metadataSize) {
  for (const pi_status_t refusal : {frontEndOf(cookie).refusal, frontEndOf(cookie).entryRefusal}) {
    if (refusal != PI_STATUS_SUCCESS) return refusal;
  }
  FakeFrontEnd::Restored one{table,
                             {key->data, key->data_size},
                             0,
                             {},
                             key->priority,
                             handle,
                             controllerMetadata,
                             {metadata, metadataSize}};
  if (entry->direct_res_config != nullptr) {
    one.meter = *static_cast<const pi_meter_spec_t*>(entry->direct_res_config->configs[0].config);
  }
  if (entry->entry_type == PI_ACTION_ENTRY_TYPE_INDIRECT) {
    one.indirectHandle = entry->entry.indirect_handle;
  } else {
    one.action = entry->entry.action_data->action_id;
    one.data.assign(entry->entry.action_data->data, entry->entry.action_data->data_size);
  }
  frontEndOf(cookie).restored.push_back(std::move(one));
  return PI_STATUS_SUCCESS;
}

pi_status_t keep(void* cookie, pi_dev_id_t, pi_p4_id_t* tables, size_t* count) {
  const auto isLost = [&](uint32_t table) {
    return std::ranges::count(frontEndOf(cookie).kept, table) == 0;
  };
  *count = std::remove_if(tables, tables + *count, isLost) - tables;
  return PI_STATUS_SUCCESS;
}

constexpr pi_frontend_hooks_t hooks{
    [](void* cookie, pi_dev_id_t, pi_entry_handle_t handle, uint32_t code) {
      frontEndOf(cookie).settled.emplace_back(handle, code);
      if (frontEndOf(cookie).onSettled) frontEndOf(cookie).onSettled();
    },
    takeBack,
    [](void* cookie, pi_dev_id_t, pi_p4_id_t, const pi_action_data_t* action, uint32_t id,
       pi_indirect_handle_t handle, const char* metadata, size_t size) {
      if (frontEndOf(cookie).refusal != PI_STATUS_SUCCESS) return frontEndOf(cookie).refusal;
      frontEndOf(cookie).members.push_back(
          {id, handle, {action->data, action->data_size}, {metadata, size}});
      return PI_STATUS_SUCCESS;
    },
    [](void* cookie, pi_dev_id_t, pi_p4_id_t, uint32_t id, const pi_indirect_handle_t* members,
       size_t count, pi_indirect_handle_t handle, const char* metadata, size_t size) {
      std::string text;
      for (size_t i = 0; i < count; ++i) text += std::to_string(members[i]) + " ";
      frontEndOf(cookie).groups.push_back({id, handle, text, {metadata, size}});
      return PI_STATUS_SUCCESS;
    },
    [](void*, pi_dev_id_t, pi_p4_id_t, const pi_match_key_t*, const pi_table_entry_t*,
       pi_entry_handle_t) { return PI_STATUS_SUCCESS; },
    [](void* cookie, pi_dev_id_t) {
      frontEndOf(cookie).restoreDone = true;
      return PI_STATUS_SUCCESS;
    },
    nullptr,
    keep};

pi_match_key_t matchKey(const Entry& entry) {
  return {nullptr, entry.table, entry.priority, entry.key.size(),
          const_cast<char*>(entry.key.data())};
}

}  // namespace

std::string bytes(std::string_view text) {
  std::string digits;
  std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
               [](unsigned char c) { return std::isxdigit(c); });
  std::string result;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return result;
}

std::string prefix(std::string_view address, uint32_t length) {
  return bytes(address) + std::string(reinterpret_cast<const char*>(&length), sizeof length);
}

Entry exactEntry(uint8_t id, uint16_t port) {
  return {exactTable, std::string{'\x08', static_cast<char>(id)} + bytes("00 07"), setPort,
          std::string{static_cast<char>(port >> 8), static_cast<char>(port)}};
}

AgentParts::AgentParts(const std::string& directory) : directory(directory) {
  const ActivityLock lock;
  store = Brine::Store::open({.directory = directory, .maxBytes = storeBytes});
  database =
      Lattice::Database::create(loop, *store, {.doorbellPath = directory + "/doorbell.sock"});
  doBuild();
  for (const auto id : {noServersDeviceId, deviceId}) pi_frontend_hooks_set(id, &hooks, &frontEnd);
  TheWriteGate()->applyLevel();
}

// In the order in which the agent builds itself.
void AgentParts::doBuild() {
  config = Vela::make<P4RuntimeConfig::P4RtSystemConfig>("system");
  config->deviceIdIs(deviceId);
  status = Vela::make<P4RuntimeConfig::P4RtSystemStatus>("system");
  auto context = piContextFactory();
  context->p4RtSystemStatusIs(status);
  const auto hwStatusDir = Vela::make<HwStatusDir>("hwStatus", directory);
  context->hwStatusDirIs(hwStatusDir);
  handles = Vela::make<P4HandleMgr>();
  context->p4HandleMgrIs(handles);
  batchStatus = Vela::make<BatchStatus>("batchStatus", database.get());
  batchStatus->notifyFdIs(notifyFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  batchStatus->batchTimeoutIs(0);  // a wait that would be one for ever ends at once
  context->batchStatusIs(batchStatus);
  TheWriteGateIs(Vela::make<WriteGate>(loop, batchStatus, status));
  tableInfo = Vela::make<P4TableInfo>("p4TableInfo", "p4runtime");
  tableImpl = tableImplFactory(
      tableInfo, handles, database.get(),
      {.batchStatus = batchStatus, .systemStatus = status, .hwStatusDir = hwStatusDir});
  context->tableImplIs(tableImpl);
  ThePiContextIs(context);
  tableImpl->initializedIs(true);
  batchStatus->rollbackHandlerIs(
      [this](EntryHandle handle) { tableImpl->updateCachedEntryState(handle, true); });
  batchStatus->strayReportHandlerIs(
      [this](const Lattice::Report& report) { tableImpl->handleStrayReport(report); });
  services = {Vela::make<Pollen::TypeConfigDir>("types"),
              Vela::make<Pollen::TypeStatusDir>("types"),
              Vela::make<Pollen::QueryConfigDir>("queries"),
              Vela::make<Pollen::QueryStatusDir>("queries"), database.get()};
  services.entries = &tableImpl->formerEntries();
  typeService =
      Vela::make<Pollen::TypeService>(loop, services.typeConfigDir, services.typeStatusDir);
  controllerPktMetadata = p4ControllerPktMetadataFactory();
  tableInfoSm = p4TableInfoSmFactory(tableInfo, controllerPktMetadata, config, services,
                                     {directory + "/p4info.json", directory + "/device.json"});
  queryConfigSm = Vela::make<Pollen::QueryConfigSm>(
      loop, services.queryConfigDir, services.queryStatusDir,
      Pollen::QueryTables{[this](const auto& name) { return tableInfo->typeOfTable(name); },
                          [this](const auto& path, const auto& type) {
                            return tableInfoSm->queryOutputIs(path, type);
                          },
                          database.get()});
  forwarder = std::make_unique<FakeForwarder>(directory, *batchStatus);
  _pi_assign_device(deviceId, nullptr, nullptr);
}

AgentParts::~AgentParts() {
  for (const auto id : {noServersDeviceId, deviceId}) pi_frontend_hooks_clear(id);
  const ActivityLock lock;
  ThePiContextIs(piContextFactory());
  watch_ = nullptr;
  database->commitObserverIs(nullptr);
  queryConfigSm = nullptr;
  tableInfoSm = nullptr;
  typeService = nullptr;
  tableImpl = nullptr;
  tableInfo = nullptr;
  TheWriteGateIs(nullptr);
  batchStatus = nullptr;
  close(notifyFd_);
  database.reset();
}

void AgentParts::settle() {
  for (int turn = 0; turn < 50; ++turn) {
    loop.post([this] { loop.stop(); });
    loop.run();
  }
}

void AgentParts::pipelineIs(const p4::v1::SetForwardingPipelineConfigRequest& request,
                            const std::string& fileName) {
  const std::string path = directory + "/" + fileName;
  std::ofstream(path, std::ios::binary) << request.SerializeAsString();
  {
    const ActivityLock lock;
    config->forwardingPipelineConfigFilePathIs(path);
  }
  settle();
}

pi_status_t AgentParts::begin() {
  offsets_.clear();
  return _pi_batch_begin(0);
}

void AgentParts::end() {
  pi_batch_current_clear();
  _pi_batch_end(0, true);
}

void AgentParts::failCommits(int count) {
  const ActivityLock lock;
  failures_ = count;
  database->commitObserverIs(this);  // in place of the queries
  if (!watch_) watch_ = database->watch("exact");
}

void AgentParts::onBeforeCommit() {
  if (failures_ == 0) return;
  --failures_;
  throw Brine::StoreError(Brine::Trouble::full, "no room in " + directory);
}

void AgentParts::fillStore() {
  const ActivityLock lock;
  uint64_t record = 0;
  for (size_t size = storeBytes / 4; size > 0; size /= 2) {
    try {
      for (;;) {
        store->put(store->table("ballast"), Brine::asBytes(std::to_string(++record)),
                   Brine::asBytes(std::string(size, 'x')));
      }
    } catch (const Brine::StoreError&) {  // no room for one of this size
    }
  }
}

void AgentParts::updateIs(uint32_t offset, uint32_t controllerId, std::string_view metadata) {
  if (offsets_.empty() || offsets_.back() != offset) offsets_.push_back(offset);
  pi_batch_current_set(offset, controllerId, 0, metadata.data(), metadata.size());
}

pi_status_t AgentParts::add(uint32_t offset, const Entry& entry) {
  updateIs(offset);
  pi_batch_current_set(offset, 0, entry.controllerMetadata, entry.metadata.data(),
                       entry.metadata.size());
  const pi_match_key_t key = matchKey(entry);
  pi_action_data_t action{nullptr, entry.action, entry.data.size(),
                          const_cast<char*>(entry.data.data())};
  pi_table_entry_t added{};
  added.direct_res_config = entry.direct;
  if (entry.indirectHandle != 0) {
    added.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
    added.entry.indirect_handle = entry.indirectHandle;
  } else {
    added.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
    added.entry.action_data = &action;
  }
  return _pi_table_entry_add(0, {deviceId, 0}, entry.table, &key, &added, 0, &lastHandle);
}

pi_status_t AgentParts::del(uint32_t offset, const Entry& entry) {
  updateIs(offset);
  const pi_match_key_t key = matchKey(entry);
  return _pi_table_entry_delete_wkey(0, deviceId, entry.table, &key);
}

StatusVector AgentParts::outcome() {
  StatusVector statuses;
  for (const uint32_t offset : offsets_) {
    statuses.emplace_back().first = offset;
    statuses.back().second.set_canonical_code(grpc::StatusCode::DEADLINE_EXCEEDED);
  }
  _pi_update_pending_status(&statuses);
  return statuses;
}

uint64_t AgentParts::program(const Entry& entry) {
  begin();
  add(0, entry);
  end();
  forwarder->programAll();
  return outcome().empty() ? lastHandle : 0;
}

void AgentParts::remove(const Entry& entry) {
  begin();
  del(0, entry);
  end();
  forwarder->programAll();
  outcome();
}

const std::string* AgentParts::row(const std::string& table) {
  static std::string value;
  const std::string* found = nullptr;
  const ActivityLock lock;
  store->forEach(store->table("row/" + table), [&](Brine::Bytes, Brine::Bytes stored) {
    value = Brine::asText(stored);
    found = &value;
    return true;
  });
  return found;
}

size_t AgentParts::rowCount(uint32_t table) {
  const ActivityLock lock;
  return tableInfo->latticeTableInterface({tableResource, table})->rowCount();
}

std::optional<TableCacheEntry> AgentParts::record(uint32_t table, uint64_t handle) {
  const ActivityLock lock;
  return tableImpl->tableCache()->cache({{tableResource, table}, handle});
}

void AgentParts::recordBytesAre(const Entry& entry, std::string_view bytes) {
  const ActivityLock lock;
  const ResourceId rid{tableResource, entry.table};
  const uint64_t handle = handles->matchKeyToEntryHandle(entry.table, entry.key, entry.priority);
  const auto row = tableImpl->tableCache()->row({rid, handle}).value();
  const Lattice::Row same{std::string(row.key), std::string(row.value)};
  tableInfo->latticeTableInterface(rid)->rowIs(same, handle, bytes);
}

size_t AgentParts::recordCount() {
  const ActivityLock lock;
  size_t count = 0;
  for (const std::string& table : store->tableNames()) {
    if (!table.starts_with(Lattice::rowTablePrefix)) continue;
    store->forEachRecord(store->table(table), [&](const Brine::Record& row) {
      count += !row.attachment.empty();
      return true;
    });
  }
  return count;
}

size_t AgentParts::metadataCount() {
  const ActivityLock lock;
  return store->count(store->table("p4runtime/cache/metadata"));
}

uint64_t AgentParts::handleOf(const Entry& entry) {
  const ActivityLock lock;
  return handles->matchKeyToEntryHandle(entry.table, entry.key, entry.priority);
}

uint64_t AgentParts::lastSequence() { return forwarder->lastHeard(); }

}  // namespace TestSupport

void p4::v1::PrintTo(const Error& error, std::ostream* out) {
  *out << "code " << error.canonical_code() << " " << error.message();
}
