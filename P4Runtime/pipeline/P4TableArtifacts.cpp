// From the device configuration to the artifacts of the write path: types are compiled, interfaces
// become ready, row constructors are built, queries are checked; then the model is ready.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include "P4Runtime/pipeline/FormerEntries.h"
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "PI/target/pi_extensions_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

using Pollen::CompilationStatus;

ResourceId resourceIdOf(const cJSON* table, const Pipeline::Extensions& extensions) {
  const uint32_t id = Vela::jsonNumber(table, "table_id").value_or(0);
  const std::string tableClass = Vela::jsonString(table, "table_class").value_or("");
  const auto is = [&](const char* name) { return strcasecmp(tableClass.c_str(), name) == 0; };
  if (is("TABLE_CLASS_ACTION_PROFILE_MEMBER")) return {actionProfileResource, id};
  if (is("TABLE_CLASS_ACTION_PROFILE_GROUP")) return {groupTableResource, id};
  if (extensions.defaultActions && is("TABLE_CLASS_DEFAULT_ACTION")) {
    return {tableResource, PI_DEFAULT_ENTRY_TABLE(id)};
  }
  return {tableResource, id};
}

ResourceId resourceIdOf(const Pipeline::TableRef& ref) {
  const auto& [kind, id] = ref;
  switch (kind) {
    case Pipeline::TableKind::member:
      return {actionProfileResource, id};
    case Pipeline::TableKind::group:
      return {groupTableResource, id};
    case Pipeline::TableKind::defaultEntry:
      return {tableResource, PI_DEFAULT_ENTRY_TABLE(id)};
    case Pipeline::TableKind::match:
      break;
  }
  return {tableResource, id};
}

bool keptInNetworkOrder(const std::string& fieldType) {
  return fieldType == "IpAddr" || fieldType == "Ip6Addr" || fieldType == "EthAddr" ||
         fieldType == "IpGenPrefix";
}

// A string that the document must have.
std::string requireText(const cJSON* parent, const char* key, const char* toDoWhat) {
  const auto value = Vela::jsonString(parent, key);
  if (!value) {
    throw P4RuntimeParsingException({}, fmt::format("Cannot parse {}{}", key, toDoWhat), {});
  }
  return *value;
}

bool tableNameTaken(const P4TableInfo& tableInfo, const std::string& name) {
  const auto& interfaces = tableInfo.latticeTableInterfaceCollection().values();
  return std::any_of(interfaces.begin(), interfaces.end(),
                     [&](const auto& one) { return one.second->tableName() == name; });
}

// Leaves out constant entries that cannot be programmed.
P4TableInfoConstEntries constEntriesOf(ResourceId rid, const cJSON* table,
                                       const Pipeline::Refused& refused,
                                       const Pipeline::Extensions& extensions) {
  P4TableInfoConstEntries entries(rid);
  size_t place = 0;
  for (const cJSON* entry : Vela::JsonElements(Vela::jsonArray(table, "table_entries"))) {
    if (rid.type == tableResource && refused.entries.contains({rid.id, place++})) continue;
    entries.entryEnq({Vela::jsonString(entry, "key").value_or(""),
                      Vela::jsonNumber(entry, "action_id").value_or(0),
                      Vela::jsonString(entry, "action_params").value_or(""),
                      Vela::jsonNumber(entry, "priority").value_or(0),
                      Pipeline::isInitialEntry(entry, extensions)});
  }
  return entries;
}

}  // namespace

void P4TableInfoSm::createLatticeTableTypes() {
  const cJSON* definitions = Vela::jsonArray(jsonRoot_, "table_type_definitions");
  if (!definitions) {
    throw P4RuntimeParsingException({}, "Cannot parse table_type_definitions to create table types",
                                    {});
  }
  for (const cJSON* definition : Vela::JsonElements(definitions)) {
    const std::string name = requireText(definition, "table_type", " to create table types");
    const std::string text = requireText(definition, "table_type_def", " to create table types");
    SCRIVEL_TRACE(5, "Lattice table type:", name, " definition", text);
    services_.typeConfigDir->typeConfigIs(name, text);
  }
  if (!definitions->child) {
    allTypesCompiledIs(true);  // a pipeline without tables: no type will ever report
    return;
  }
  handleTypeCompileStatus();
}

void P4TableInfoSm::watchTypeStatus(const std::string& name) {
  typeStatusChanges_.erase(name);
  if (const auto status = services_.typeStatusDir->typeStatus(name)) {
    typeStatusChanges_[name] =
        status->compilationStatusAttribute().observe([this] { handleTypeCompileStatus(); });
    handleTypeCompileStatus();
  }
}

void P4TableInfoSm::handleTypeCompileStatus() {
  SCRIVEL_TRACE(5, "handleTypeCompileStatus");
  if (!jsonRoot_ || allTypesCompiled()) return;
  const auto names = services_.typeConfigDir->typeConfigNames();
  if (names.empty()) {
    SCRIVEL_TRACE(1, "handleTypeCompileStatus", "no typeConfigs in typeConfigDir");
    return;
  }
  runGuarded([&] {
    for (const std::string& name : names) {
      const auto status = services_.typeStatusDir->typeStatus(name);
      if (!status) {
        SCRIVEL_TRACE(5, "handleTypeCompileStatus", "status entry does not yet exist for", name);
        return;
      }
      if (status->compilationStatus() == CompilationStatus::inProgress) {
        SCRIVEL_TRACE(5, "handleTypeCompileStatus", "compilation is still in progress for", name);
        return;
      }
      if (status->compilationStatus() == CompilationStatus::failed) {
        throw P4RuntimeParsingException(status->reason(), "Compilation failed for " + name, {});
      }
    }
    allTypesCompiledIs(true);
  });
}

void P4TableInfoSm::handleAllTypesCompiled() {
  SCRIVEL_TRACE(1, "handleAllTypesCompiled", " ", allTypesCompiled());
  if (allTypesCompiled()) runGuarded([&] { createLatticeTableInterfaces(); });
}

void P4TableInfoSm::createLatticeTableInterfaces() {
  const cJSON* tables = Vela::jsonArray(jsonRoot_, "tables");
  if (!tables) {
    const std::unique_ptr<char, decltype(&std::free)> text(cJSON_Print(jsonRoot_), &std::free);
    SCRIVEL_TRACE(0, "createLatticeTableInterfaces", " cannot parse ", "tables",
                  text ? text.get() : "");
    return;
  }
  for (const cJSON* table : Vela::JsonElements(tables)) createTableInterface(table);
  for (const cJSON* query : Vela::JsonElements(Vela::jsonArray(jsonRoot_, "queries")))
    createQueryOutput(query);
  for (const std::string& name : services_.tables->removeUnboundTables()) {
    SCRIVEL_TRACE(0, "createLatticeTableInterfaces", " removed the rows of table ", name,
                  ", which the pipeline no longer has");
    if (push_) continue;  // all entries go
    Vela::tellError("removed table {}, which the pipeline no longer has", name);
  }
  allArInterfacesCreatedIs(true);
}

void P4TableInfoSm::createTableInterface(const cJSON* table) {
  const ResourceId rid = resourceIdOf(table, extensions_);
  const std::string name = requireText(table, "table_name", " to create tables");
  const std::string type = requireText(table, "table_type", " to create tables");
  if (!Lattice::TheTypeRegistry().type(type)) {
    throw P4RuntimeParsingException(
        {},
        fmt::format("Cannot parse table {}: no definition of its type {} to create tables", name,
                    type),
        {});
  }
  if (tableInfo_->latticeTableInterfaceHas(rid) || tableNameTaken(*tableInfo_, name)) {
    throw P4RuntimeParsingException(
        {}, fmt::format("Cannot parse table {}: it stands there twice to create tables", name), {});
  }
  const auto ready = [this, rid, generation = generation_] {
    if (generation == generation_) onArInterfaceReady(rid);
  };
  auto interface = Vela::make<Lattice::ArTableInterface>(name, type, ready);
  tableInfo_->latticeTableInterfaceIs(rid, interface);
  services_.tables->bindInterface(interface, name, true);
  tableInfo_->constEntriesIs(rid, constEntriesOf(rid, table, refused_, extensions_));
}

void P4TableInfoSm::onArInterfaceReady(ResourceId tableId) {
  tableInfo_->latticeTableInterface(tableId)->maybeInitialize();
  SCRIVEL_TRACE(5, "onArInterfaceReady", " tableId:", tableId.id);
  arInterfaceReadyIs(tableId, true);
  maybeUpdateAllArInterfacesReady();
}

void P4TableInfoSm::maybeUpdateAllArInterfacesReady() {
  if (!allArInterfacesCreated()) return;
  for (const auto& [rid, interface] : tableInfo_->latticeTableInterfaceCollection().values()) {
    if (!arInterfaceReady(rid)) return;
  }
  allArInterfacesReadyIs(true);
}

void P4TableInfoSm::handleAllArInterfacesReady() {
  SCRIVEL_TRACE(1, "handleAllArInterfacesReady");
  if (!jsonRoot_) return;  // a new pipeline is on its way
  runGuarded([&] {
    if (!push_ && services_.entries) services_.entries->putBack();
    createRowConstructors();
    // Queries see none of the former entries.
    if (const auto push = std::exchange(push_, std::nullopt)) services_.entries->forget(*push);
    createLatticeQueries();
  });
}

void P4TableInfoSm::createRowConstructors() {
  for (const cJSON* table : Vela::JsonElements(Vela::jsonArray(jsonRoot_, "tables"))) {
    createRowConstructor(table);
  }
  doRefuse();
}

void P4TableInfoSm::createRowConstructor(const cJSON* table) {
  const ResourceId rid = resourceIdOf(table, extensions_);
  const std::string name = requireText(table, "table_name", " to create rows");
  const std::string type = requireText(table, "table_type", " to create rows");
  SCRIVEL_TRACE(5, "------------ Pass the following to lattice for creating table", name, " type",
                type);
  const cJSON* fields = Vela::jsonArray(table, "table_fields");
  if (!fields) {
    throw P4RuntimeParsingException(
        {},
        fmt::format("table_fields token is missing in JSON file, table {} to create rows", name),
        {});
  }
  FieldBitwidths widths = tableInfo_->fieldBitwidths(rid);
  std::vector<std::string> fieldNames;
  std::vector<std::string> fieldTypes;
  for (const cJSON* field : Vela::JsonElements(fields)) {
    const auto slot = static_cast<uint32_t>(fieldTypes.size());
    fieldNames.push_back(requireText(field, "field_name", " to create rows"));
    fieldTypes.push_back(requireText(field, "field_type", " to create rows"));
    if (keptInNetworkOrder(fieldTypes.back())) widths.fieldInNetworkByteOrderIs(slot, true);
  }
  tableInfo_->fieldBitwidthsIs(rid, widths);
  if (std::getenv("LATTICE_TYPES_CREATION_FAKED")) return;
  SCRIVEL_TRACE(5, "Checking if tableInfo is ready");
  if (!tableInfo_->latticeTableInterface(rid)->ready()) {
    throw P4RuntimeParsingException(
        {}, "latticeTableInterface not ready for " + name + " to create rows", {});
  }
  try {
    tableInfo_->rowConstructorIs(rid,
                                 Vela::make<Lattice::RowConstructor>(type, fieldNames, fieldTypes));
  } catch (const Lattice::TypeError& e) {
    throw P4RuntimeParsingException(e.what(), "Cannot parse table " + name + " to create rows", {});
  }
  SCRIVEL_TRACE(5, "Created row constructor");
}

void P4TableInfoSm::doRefuse() {
  for (const auto& [ref, why] : refused_.tables) {
    tableInfo_->unprogrammableIs(resourceIdOf(ref), why);
  }
  for (const auto& [id, why] : refused_.actions) {
    tableInfo_->unprogrammableIs({actionResource, id}, why);
  }
  std::set<std::string> lines;  // a profile occurs twice: as members and as groups
  for (const auto& [rid, why] : tableInfo_->unprogrammableCollection().values()) {
    SCRIVEL_TRACE(0, "P4TableInfoSm", tableInfo_->nameOf(rid), " cannot be programmed: ", why);
    lines.insert(fmt::format("{} cannot be programmed: {}", tableInfo_->kindAndName(rid), why));
  }
  TheParsingStatus()->refusedIs(fmt::format("{}", fmt::join(lines, "\n")));
  for (const std::string& line : lines) {
    Vela::tellError("{}; writes of it will be refused", line);
  }
}

void P4TableInfoSm::createLatticeQueries() {
  for (const cJSON* query : Vela::JsonElements(Vela::jsonArray(jsonRoot_, "queries")))
    createQuery(query);
  allQueriesReceivedIs(true);
}

void P4TableInfoSm::createQuery(const cJSON* query) {
  const char* const toDoWhat = " to create queries";
  const std::string path = requireText(query, "output_table_path", toDoWhat);
  if (services_.queryConfigDir->queryConfig(path)) {
    throw P4RuntimeParsingException(
        {}, fmt::format("Cannot parse query {}: it stands there twice{}", path, toDoWhat), {});
  }
  const auto config = services_.queryConfigDir->queryConfigIs(
      path, requireText(query, "output_table_type", toDoWhat));
  const std::string text = requireText(query, "query", toDoWhat);
  SCRIVEL_TRACE(5, "Lattice query:", text);
  config->oneShotIs(cJSON_IsTrue(cJSON_GetObjectItem(query, "one_shot")) != 0);
  config->queryTextIs(text);
  for (const cJSON* pair : Vela::JsonElements(Vela::jsonArray(query, "input_tables"))) {
    const std::string key = requireText(pair, "table_key", toDoWhat);
    const std::string value = requireText(pair, "table_value", toDoWhat);
    SCRIVEL_TRACE(5, "Query table map:", key, " =>", value);
    config->inputTableIs(key, value);
  }
  for (const cJSON* pair : Vela::JsonElements(Vela::jsonArray(query, "params"))) {
    const std::string key = requireText(pair, "param_key", toDoWhat);
    const std::string value = requireText(pair, "param_value", toDoWhat);
    SCRIVEL_TRACE(5, "Query parameter map:", key, " =>", value);
    config->parameterIs(key, value);
  }
  services_.queryConfigDir->activeQueryConfigIs(config);
}

// Runs before unused tables are removed, so that a query keeps its rows of an earlier process.
// Faults of the query are reported when it is checked.
void P4TableInfoSm::createQueryOutput(const cJSON* query) {
  const auto path = Vela::jsonString(query, "output_table_path");
  const auto type = Vela::jsonString(query, "output_table_type");
  if (!path || !type || !Lattice::TheTypeRegistry().type(*type)) return;
  if (!tableNameTaken(*tableInfo_, *path)) queryOutputIs(*path, *type);
}

Vela::Ptr<Lattice::ArTableInterface> P4TableInfoSm::queryOutputIs(const std::string& path,
                                                                  const std::string& typeName) {
  auto& output = queryOutputs_[path];
  if (output && output->ready() && output->typeName() == typeName) return output;
  output = Vela::make<Lattice::ArTableInterface>(path, typeName, [] {});
  services_.tables->bindInterface(output, path, true);
  return output;
}

void P4TableInfoSm::watchQueryStatus(const std::string& name) {
  queryStatusChanges_.erase(name);
  if (const auto status = services_.queryStatusDir->queryStatus(name)) {
    queryStatusChanges_[name] =
        status->observeAll([this](const std::string&) { handleQueryCompileStatus(); });
    handleQueryCompileStatus();
  }
}

void P4TableInfoSm::handleAllQueriesReceived() {
  SCRIVEL_TRACE(1, "handleAllQueriesReceived", " ", allQueriesReceived());
  if (allQueriesReceived()) handleQueryCompileStatus();
}

void P4TableInfoSm::handleQueryCompileStatus() {
  SCRIVEL_TRACE(5, "handleQueryCompileStatus");
  if (!allQueriesReceived()) {
    SCRIVEL_TRACE(5, "handleQueryCompileStatus", " all queries not received yet");
    return;
  }
  if (allQueriesCompiled()) return;
  runGuarded([&] {
    for (const auto& name : services_.queryConfigDir->entityNames()) {
      const auto status = services_.queryStatusDir->queryStatus(name);
      if (!status) {
        SCRIVEL_TRACE(5, "handleQueryCompileStatus", "status entry does not yet exist for", name);
        return;
      }
      // A query that fails on some rows still serves the others.
      if (!status->reason().empty() && status->defined()) continue;
      if (!status->reason().empty()) {
        throw P4RuntimeParsingException(status->reason(), "Query compilation failed for " + name,
                                        {});
      }
      if (!status->defined()) {
        SCRIVEL_TRACE(5, "handleQueryCompileStatus", "Query is not defined yet:", name);
        return;
      }
      if (!status->active()) {
        SCRIVEL_TRACE(5, "handleQueryCompileStatus", "Query is not active yet", name);
        return;
      }
    }
    allQueriesCompiledIs(true);
  });
}

void P4TableInfoSm::handleAllQueriesCompiled() {
  SCRIVEL_TRACE(1, "handleAllQueriesCompiled", " ", allQueriesCompiled());
  if (!allQueriesCompiled()) return;
  jsonRoot_ = nullptr;
  jsonRootToDelete_.reset();
  tableInfo_->tableInfoStateIs(P4TableInfoState::tableInfoReady);
}

}  // namespace P4Runtime
