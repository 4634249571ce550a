// From the P4Info's JSON form to the model: slot layouts, actions, sizes, direct resources
// and the headers of controllers' packets.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "pipeline/ColumnType.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

constexpr uint32_t widestField = 255;      // bits that a slot can say
constexpr uint8_t prefixLengthWidth = 32;  // bits of the slot behind a prefix

bool isMatchType(const std::string& text, const char* type) {
  return strcasecmp(text.c_str(), type) == 0;
}

// Lays out the slots of one resource, in order.
class SlotLayout {
 public:
  explicit SlotLayout(ResourceId rid) : widths_(rid) {}

  uint32_t append(uint32_t width) {
    const uint32_t slot = widths_.slots();
    if (width > widestField) width = 0;  // entries with such a field are refused
    widths_.fieldBitwidthIs(slot, static_cast<uint8_t>(width));
    return slot;
  }
  void networkOrder(uint32_t slot) { widths_.fieldInNetworkByteOrderIs(slot, true); }
  void ipPrefix(uint32_t slot) { widths_.fieldIsIpPrefixIs(slot, true); }

  void store(P4TableInfo& tableInfo) const { tableInfo.fieldBitwidthsIs(widths_.id, widths_); }

 private:
  FieldBitwidths widths_;
};

// Appends the slots of one match field; returns whether entries need a priority for it.
bool appendMatchField(SlotLayout& layout, const cJSON* field) {
  const uint32_t width = jsonNumber(field, "bitwidth").value_or(0);
  const std::string type = jsonString(field, "matchType").value_or("");
  const uint32_t slot = layout.append(width);
  if (isMatchType(type, "TERNARY")) {
    layout.append(width);
    return true;
  }
  if (isMatchType(type, "LPM")) {
    layout.ipPrefix(slot);
    layout.networkOrder(layout.append(prefixLengthWidth));
  }
  return isMatchType(type, "RANGE");
}

// Sizes have 64 bits in the P4Info. A size beyond 32 bits is clamped: no table grows so large. A
// negative size counts as 0.
uint32_t sizeOf(const cJSON* element) {
  const std::string text = jsonString(element, "size").value_or("");
  const long long size = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<uint32_t>(std::clamp<long long>(size, 0, UINT32_MAX));
}

bool hasSize(const cJSON* element) { return jsonString(element, "size").has_value(); }

}  // namespace

void P4TableInfoSm::handleP4InfoStr(const std::string& p4InfoJson) {
  SCRIVEL_TRACE(1, "handleP4InfoStr", " bytes ", p4InfoJson.size());
  const JsonDocument document(cJSON_Parse(p4InfoJson.c_str()));
  if (!document) throwParsingException("cannot parse JSON root");
  // Tables look up the direct resources, and profiles the actions of their tables.
  parseP4InfoActions(document.get());
  parseP4InfoDirectResources(document.get());
  parseP4InfoTables(document.get());
  parseP4InfoActionProfiles(document.get());
  parseP4InfoPktMetadata(document.get());
  bitwidthsInitializedIs(true);
}

void P4TableInfoSm::parseP4InfoActions(const cJSON* p4Info) {
  const cJSON* actions = jsonArray(p4Info, "actions");
  if (!actions) throwParsingException("Cannot find actions section in the P4Info file");
  for (const cJSON* action : JsonElements(actions)) {
    const ResourceId rid{actionResource, jsonPreambleId(action)};
    SlotLayout layout(rid);
    uint32_t parameters = 0;
    for (const cJSON* parameter : JsonElements(jsonArray(action, "params"))) {
      const std::string name = jsonString(parameter, "name").value_or("");
      const uint32_t slot = layout.append(jsonNumber(parameter, "bitwidth").value_or(0));
      if (Pipeline::isInNetworkOrder(name)) layout.networkOrder(slot);
      ++parameters;
    }
    if (parameters == 0) layout.append(0);
    layout.store(*tableInfo_);
    tableInfo_->resourceNameIs(rid, jsonPreambleName(action));
  }
}

void P4TableInfoSm::parseP4InfoDirectResources(const cJSON* p4Info) {
  for (const cJSON* meter : JsonElements(jsonArray(p4Info, "directMeters"))) {
    SCRIVEL_TRACE(5, "parseP4InfoDirectResources", " Add directMeterId:", jsonPreambleId(meter));
    tableInfo_->directMeterIdsIs({directMeterResource, jsonPreambleId(meter)}, true);
  }
  for (const cJSON* counter : JsonElements(jsonArray(p4Info, "directCounters"))) {
    SCRIVEL_TRACE(5, "parseP4InfoDirectResources",
                  " Add directCounterId:", jsonPreambleId(counter));
    tableInfo_->directCounterIdsIs({directCounterResource, jsonPreambleId(counter)}, true);
  }
}

void P4TableInfoSm::parseP4InfoTables(const cJSON* p4Info) {
  const cJSON* tables = jsonArray(p4Info, "tables");
  if (!tables) throwParsingException("Cannot find tables section in the P4Info file");
  for (const cJSON* table : JsonElements(tables)) {
    const ResourceId rid{tableResource, jsonPreambleId(table)};
    tableInfo_->resourceNameIs(rid, jsonPreambleName(table));
    SlotLayout layout(rid);
    for (const cJSON* field : JsonElements(jsonArray(table, "matchFields"))) {
      if (appendMatchField(layout, field)) tableInfo_->priorityNeededIs(rid, true);
    }
    layout.store(*tableInfo_);
    ActionIdCol actions(rid);
    for (const cJSON* reference : JsonElements(jsonArray(table, "actionRefs"))) {
      actions.actionIdEnq(jsonNumber(reference, "id").value_or(0));
    }
    tableInfo_->actionIdColForTableIs(rid, std::move(actions));
    if (hasSize(table)) {
      tableInfo_->maxTableSizeIs(rid, sizeOf(table));
      SCRIVEL_TRACE(5, "Max Table size for table ", rid.id, " is ", sizeOf(table));
    }
    for (const cJSON* reference : JsonElements(jsonArray(table, "directResourceIds"))) {
      const uint32_t id = jsonNumber(reference).value_or(0);
      if (tableInfo_->directMeterIds({directMeterResource, id})) {
        tableInfo_->hasDirectMeterIs(rid, true);
        tableInfo_->directMeterOfIs(rid, id);
      } else if (tableInfo_->directCounterIds({directCounterResource, id})) {
        tableInfo_->hasDirectCounterIs(rid, true);
      }
    }
  }
}

void P4TableInfoSm::parseP4InfoActionProfiles(const cJSON* p4Info) {
  for (const cJSON* profile : JsonElements(jsonArray(p4Info, "actionProfiles"))) {
    const ResourceId rid{actionProfileResource, jsonPreambleId(profile)};
    const ResourceId groupRid{groupTableResource, rid.id};
    for (const ResourceId& one : {rid, groupRid}) {
      tableInfo_->resourceNameIs(one, jsonPreambleName(profile));
    }
    ActionIdCol actions(rid);
    const cJSON* tableIds = jsonArray(profile, "tableIds");
    for (const cJSON* reference : JsonElements(tableIds)) {
      const ResourceId tableRid{tableResource, jsonNumber(reference).value_or(0)};
      SCRIVEL_TRACE(5, "parseP4InfoActionProfiles", " found table", tableRid.id);
      for (const uint32_t actionId : tableInfo_->actionIdColForTable(tableRid).actionId()) {
        const bool existing = actions.actionIdHas(actionId);
        SCRIVEL_TRACE(5, "parseP4InfoActionProfiles", existing ? " existing action" : " add action",
                      actionId);
        if (!existing) actions.actionIdEnq(actionId);
      }
    }
    tableInfo_->actionIdColForTableIs(rid, std::move(actions));
    if (hasSize(profile)) {
      tableInfo_->maxTableSizeIs(rid, sizeOf(profile));
      SCRIVEL_TRACE(5, "Max size for ActionProfile", rid.id, " is ", sizeOf(profile));
    }
    SlotLayout layout(rid);
    layout.append(32);  // the id of the member or group
    layout.store(*tableInfo_);
    if (!tableIds || !tableIds->child) {
      SCRIVEL_TRACE(1, "action profile ", rid.id, " not used by any tables");
    }
  }
}

void P4TableInfoSm::parseP4InfoPktMetadata(const cJSON* p4Info) {
  const cJSON* headers = jsonArray(p4Info, "controllerPacketMetadata");
  if (!headers) {
    SCRIVEL_TRACE(1, "parseP4InfoPktMetadata", " no controller packet metadata");
    return;
  }
  for (const cJSON* header : JsonElements(headers)) {
    const auto entry =
        controllerPktMetadata_->metadataEntryIs(jsonPreambleName(header), jsonPreambleId(header));
    for (const cJSON* field : JsonElements(jsonArray(header, "metadata"))) {
      const P4ControllerPktMetadataField one{jsonNumber(field, "id").value_or(0),
                                             jsonString(field, "name").value_or(""),
                                             jsonNumber(field, "bitwidth").value_or(0)};
      SCRIVEL_TRACE(5, " Metadata Field", one.name, " Bitwidth", one.bitwidth);
      entry->metadataFieldIs(one);
    }
  }
}

}  // namespace P4Runtime
