// From the P4Info's JSON form to the model: slot layouts, actions, sizes, direct resources
// and the headers of controllers' packets.
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "PI/frontends/proto/translation_tables.h"
#include "PI/target/pi_extensions_imp.h"
#include "pipeline/ColumnType.h"
#include "pipeline/Extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfoSm");

constexpr uint32_t widestField = 255;      // bits that a slot can say
constexpr uint8_t prefixLengthWidth = 32;  // bits of the slot behind a prefix
constexpr uint8_t presenceWidth = 8;       // bits of the slot behind an optional value

bool isMatchType(const std::string& text, const char* type) {
  return strcasecmp(text.c_str(), type) == 0;
}

// Lays out the slots of one resource, in order.
class SlotLayout {
 public:
  SlotLayout(ResourceId rid, const Pipeline::Extensions& extensions)
      : widths_(rid), extensions_(extensions) {}

  uint32_t append(uint32_t width) {
    const uint32_t slot = widths_.slots();
    const bool isWide = width > widestField;
    // Without the extension, entries with such a field are refused.
    widths_.fieldBitwidthIs(slot, static_cast<uint8_t>(isWide ? 0 : width));
    if (isWide && extensions_.fields) widths_.wideFieldBitwidthIs(slot, width);
    // There are no three-byte integers in host order.
    if (extensions_.fields && (width + 7) / 8 == 3) networkOrder(slot);
    return slot;
  }
  const Pipeline::Extensions& extensions() const { return extensions_; }
  void networkOrder(uint32_t slot) { widths_.fieldInNetworkByteOrderIs(slot, true); }
  void ipPrefix(uint32_t slot) { widths_.fieldIsIpPrefixIs(slot, true); }

  void store(P4TableInfo& tableInfo) const { tableInfo.fieldBitwidthsIs(widths_.id, widths_); }

 private:
  FieldBitwidths widths_;
  const Pipeline::Extensions& extensions_;
};

uint32_t preambleId(const cJSON* element) {  // 0 when absent
  return Vela::jsonNumber(Vela::jsonObject(element, "preamble"), "id").value_or(0);
}

std::string preambleName(const cJSON* element) {
  return Vela::jsonString(Vela::jsonObject(element, "preamble"), "name").value_or("");
}

// Whether the number stands for a string of a translated type.
bool isName(const cJSON* value) {
  for (const cJSON* annotation : Vela::JsonElements(Vela::jsonArray(value, "annotations"))) {
    const char* const text = cJSON_GetStringValue(annotation);
    if (text != nullptr && std::string_view(text) == pi::fe::proto::kNameAnnotation) return true;
  }
  return false;
}

// Appends the slots of one match field; returns whether entries need a priority for it.
bool appendMatchField(SlotLayout& layout, const cJSON* field) {
  const uint32_t width = Vela::jsonNumber(field, "bitwidth").value_or(0);
  const std::string type = Vela::jsonString(field, "matchType").value_or("");
  const uint32_t slot = layout.append(width);
  if (isMatchType(type, "TERNARY")) {
    layout.append(width);
    return true;
  }
  if (isMatchType(type, "LPM")) {
    const bool isValueAndLength = layout.extensions().fields && width != 32 && width != 128;
    isValueAndLength ? layout.networkOrder(slot) : layout.ipPrefix(slot);
    layout.networkOrder(layout.append(prefixLengthWidth));
    return false;
  }
  if (isMatchType(type, "OPTIONAL") && layout.extensions().fields) {
    layout.append(presenceWidth);
    return true;
  }
  if (!isMatchType(type, "RANGE")) return false;
  if (layout.extensions().fields) layout.append(width);
  return true;
}

// Sizes have 64 bits in the P4Info. A size beyond 32 bits is clamped: no table grows so large. A
// negative size counts as 0.
uint32_t sizeOf(const cJSON* element) {
  const std::string text = Vela::jsonString(element, "size").value_or("");
  const long long size = std::strtoll(text.c_str(), nullptr, 10);
  return static_cast<uint32_t>(std::clamp<long long>(size, 0, UINT32_MAX));
}

bool hasSize(const cJSON* element) { return Vela::jsonString(element, "size").has_value(); }

}  // namespace

void P4TableInfoSm::handleP4InfoStr(const std::string& p4InfoJson) {
  SCRIVEL_TRACE(1, "handleP4InfoStr", " bytes ", p4InfoJson.size());
  const Vela::Json document(cJSON_Parse(p4InfoJson.c_str()));
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
  const cJSON* actions = Vela::jsonArray(p4Info, "actions");
  if (!actions && extensions_.noTables) return;
  if (!actions) throwParsingException("Cannot find actions section in the P4Info file");
  for (const cJSON* action : Vela::JsonElements(actions)) {
    const ResourceId rid{actionResource, preambleId(action)};
    SlotLayout layout(rid, extensions_);
    uint32_t parameters = 0;
    for (const cJSON* parameter : Vela::JsonElements(Vela::jsonArray(action, "params"))) {
      const std::string name = Vela::jsonString(parameter, "name").value_or("");
      const uint32_t slot = layout.append(Vela::jsonNumber(parameter, "bitwidth").value_or(0));
      if (Pipeline::isInNetworkOrder(name) && !isName(parameter)) layout.networkOrder(slot);
      ++parameters;
    }
    if (parameters == 0) layout.append(0);
    layout.store(*tableInfo_);
    tableInfo_->resourceNameIs(rid, preambleName(action));
  }
}

void P4TableInfoSm::parseP4InfoDirectResources(const cJSON* p4Info) {
  for (const cJSON* meter : Vela::JsonElements(Vela::jsonArray(p4Info, "directMeters"))) {
    SCRIVEL_TRACE(5, "parseP4InfoDirectResources", " Add directMeterId:", preambleId(meter));
    tableInfo_->directMeterIdsIs({directMeterResource, preambleId(meter)}, true);
  }
  for (const cJSON* counter : Vela::JsonElements(Vela::jsonArray(p4Info, "directCounters"))) {
    SCRIVEL_TRACE(5, "parseP4InfoDirectResources", " Add directCounterId:", preambleId(counter));
    tableInfo_->directCounterIdsIs({directCounterResource, preambleId(counter)}, true);
  }
}

void P4TableInfoSm::parseP4InfoTables(const cJSON* p4Info) {
  const cJSON* tables = Vela::jsonArray(p4Info, "tables");
  if (!tables && extensions_.noTables) return;
  if (!tables) throwParsingException("Cannot find tables section in the P4Info file");
  for (const cJSON* table : Vela::JsonElements(tables)) {
    const ResourceId rid{tableResource, preambleId(table)};
    tableInfo_->resourceNameIs(rid, preambleName(table));
    SlotLayout layout(rid, extensions_);
    for (const cJSON* field : Vela::JsonElements(Vela::jsonArray(table, "matchFields"))) {
      if (appendMatchField(layout, field)) tableInfo_->priorityNeededIs(rid, true);
    }
    layout.store(*tableInfo_);
    if (extensions_.defaultActions) parseDefaultEntry(table);
    ActionIdCol actions(rid);
    for (const cJSON* reference : Vela::JsonElements(Vela::jsonArray(table, "actionRefs"))) {
      actions.actionIdEnq(Vela::jsonNumber(reference, "id").value_or(0));
    }
    tableInfo_->actionIdColForTableIs(rid, std::move(actions));
    if (hasSize(table)) {
      tableInfo_->maxTableSizeIs(rid, sizeOf(table));
      SCRIVEL_TRACE(5, "Max Table size for table ", rid.id, " is ", sizeOf(table));
    }
    parseDirectResourcesOf(table, rid);
  }
}

void P4TableInfoSm::parseDirectResourcesOf(const cJSON* table, const ResourceId& rid) {
  for (const cJSON* reference : Vela::JsonElements(Vela::jsonArray(table, "directResourceIds"))) {
    const uint32_t id = Vela::jsonNumber(reference).value_or(0);
    if (tableInfo_->directMeterIds({directMeterResource, id})) {
      tableInfo_->hasDirectMeterIs(rid, true);
      tableInfo_->directMeterOfIs(rid, id);
    } else if (tableInfo_->directCounterIds({directCounterResource, id})) {
      tableInfo_->hasDirectCounterIs(rid, true);
    }
  }
}

// Of a table whose default entry has rows of its own: a key of one byte, and the actions that may
// be the default.
void P4TableInfoSm::parseDefaultEntry(const cJSON* table) {
  const ResourceId rid{tableResource, PI_DEFAULT_ENTRY_TABLE(preambleId(table))};
  tableInfo_->resourceNameIs(rid, preambleName(table) + " (default entry)");
  tableInfo_->maxTableSizeIs(rid, 1);
  SlotLayout layout(rid, extensions_);
  layout.append(8);
  layout.store(*tableInfo_);
  ActionIdCol actions(rid);
  for (const cJSON* reference : Vela::JsonElements(Vela::jsonArray(table, "actionRefs"))) {
    if (Vela::jsonString(reference, "scope") == "TABLE_ONLY") continue;
    actions.actionIdEnq(Vela::jsonNumber(reference, "id").value_or(0));
  }
  tableInfo_->actionIdColForTableIs(rid, std::move(actions));
  if (extensions_.defaultResources) parseDirectResourcesOf(table, rid);
}

void P4TableInfoSm::parseP4InfoActionProfiles(const cJSON* p4Info) {
  for (const cJSON* profile : Vela::JsonElements(Vela::jsonArray(p4Info, "actionProfiles"))) {
    const ResourceId rid{actionProfileResource, preambleId(profile)};
    const ResourceId groupRid{groupTableResource, rid.id};
    for (const ResourceId& one : {rid, groupRid}) {
      tableInfo_->resourceNameIs(one, preambleName(profile));
    }
    ActionIdCol actions(rid);
    const cJSON* tableIds = Vela::jsonArray(profile, "tableIds");
    for (const cJSON* reference : Vela::JsonElements(tableIds)) {
      const ResourceId tableRid{tableResource, Vela::jsonNumber(reference).value_or(0)};
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
    SlotLayout layout(rid, extensions_);
    layout.append(32);  // the id of the member or group
    layout.store(*tableInfo_);
    if (!tableIds || !tableIds->child) {
      SCRIVEL_TRACE(1, "action profile ", rid.id, " not used by any tables");
    }
  }
}

void P4TableInfoSm::parseP4InfoPktMetadata(const cJSON* p4Info) {
  const cJSON* headers = Vela::jsonArray(p4Info, "controllerPacketMetadata");
  if (!headers) {
    SCRIVEL_TRACE(1, "parseP4InfoPktMetadata", " no controller packet metadata");
    return;
  }
  for (const cJSON* header : Vela::JsonElements(headers)) {
    const auto entry =
        controllerPktMetadata_->metadataEntryIs(preambleName(header), preambleId(header));
    for (const cJSON* field : Vela::JsonElements(Vela::jsonArray(header, "metadata"))) {
      const P4ControllerPktMetadataField one{Vela::jsonNumber(field, "id").value_or(0),
                                             Vela::jsonString(field, "name").value_or(""),
                                             Vela::jsonNumber(field, "bitwidth").value_or(0)};
      SCRIVEL_TRACE(5, " Metadata Field", one.name, " Bitwidth", one.bitwidth);
      entry->metadataFieldIs(one);
      if (extensions_.packetHeaders) entry->wireFieldEnq(one);
    }
  }
}

}  // namespace P4Runtime
