// The keys under "extensions", one an ability, each with the version 1.
#include "pipeline/Extensions.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "PI/frontends/proto/entity_tables.h"
#include "PI/frontends/proto/translation_tables.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/ColumnType.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

using p4::config::v1::Action_Param;
using p4::config::v1::ActionRef;
using p4::config::v1::ControllerPacketMetadata;
using p4::config::v1::MatchField;

constexpr uint32_t version = 1;
constexpr uint32_t idsOfDefaults = 0x80000000;  // from here on, of tables of default entries

struct Key {
  const char* name;
  bool Extensions::*ability;
};
constexpr Key keys[] = {
    {"fields", &Extensions::fields},
    {"default_actions", &Extensions::defaultActions},
    {"packet_headers", &Extensions::packetHeaders},
    {"initial_entries", &Extensions::initialEntries},
    {"no_tables", &Extensions::noTables},
    {"entities", &Extensions::entities},
    {"strings", &Extensions::strings},
    {"watch_ports", &Extensions::watchPorts},
    {"default_resources", &Extensions::defaultResources},
};

bool needsFields(const MatchField& field) {
  if (field.match_case() != MatchField::kMatchType) return false;
  const auto choice = field.match_type() == MatchField::LPM ? prefixColumn : keyColumn;
  if (!choice(field, {.fields = true}).refusal.empty()) return false;
  return field.match_type() == MatchField::RANGE || field.match_type() == MatchField::OPTIONAL ||
         !choice(field, {}).refusal.empty();
}

bool needsFields(const Action_Param& parameter) {
  return parameterColumn(parameter, {.fields = true}).refusal.empty() &&
         !parameterColumn(parameter, {}).refusal.empty();
}

// The one packet_out that is known without: a port of four bytes, and a flag of one.
bool isPortAndFlag(const ControllerPacketMetadata& header) {
  const auto has = [&](uint32_t id, int bytes) {
    return std::ranges::any_of(header.metadata(), [&](const auto& field) {
      return field.id() == id && (field.bitwidth() + 7) / 8 == bytes;
    });
  };
  return header.metadata_size() == 2 && has(1, 4) && has(2, 1);
}

bool needsPacketHeaders(const ControllerPacketMetadata& header) {
  const auto& fields = header.metadata();
  // Strings have no place on the wire.
  if (std::ranges::any_of(fields, [](const auto& field) { return field.bitwidth() <= 0; })) {
    return false;
  }
  if (header.preamble().name() == "packet_out") return !isPortAndFlag(header);
  return header.preamble().name() == "packet_in" &&
         std::ranges::any_of(fields, [](const auto& field) { return field.bitwidth() % 8 != 0; });
}

void readKey(const cJSON& item, Extensions* extensions, Findings* findings) {
  const auto* const key = std::ranges::find(keys, std::string_view(item.string), &Key::name);
  if (key == std::end(keys)) {
    std::string known;
    for (const Key& one : keys) known += (known.empty() ? "" : ", ") + quoted(one.name);
    findings->error("the device configuration",
                    "asks for the extension " + quoted(item.string) +
                        ", which this agent does not know; it knows " + known +
                        ". Make the file with this agent's 'korvel pipeline build'");
    return;
  }
  if (Vela::jsonNumber(&item) == version) {
    extensions->*(key->ability) = true;
    return;
  }
  findings->error("the device configuration", "asks for a version of the extension " +
                                                  quoted(item.string) +
                                                  " that this agent does not know; it knows 1");
}

}  // namespace

bool hasOpenDefault(const p4::config::v1::Table& table) {
  return table.preamble().id() < idsOfDefaults && table.const_default_action_id() == 0 &&
         table.implementation_id() == 0 &&
         std::ranges::any_of(table.action_refs(), [](const ActionRef& ref) {
           return ref.scope() != ActionRef::TABLE_ONLY && ref.scope() != ActionRef::GROUP_ACTION;
         });
}

namespace {

// Resources that name no table are those of the tables that name them.
auto hasResourcesOfDefault(const p4::config::v1::P4Info& p4Info) {
  return [&p4Info](const p4::config::v1::Table& table) {
    const auto names = [&](const auto& resource) {
      return std::ranges::find(table.direct_resource_ids(), resource.preamble().id()) !=
             table.direct_resource_ids().end();
    };
    return hasOpenDefault(table) && (std::ranges::any_of(p4Info.direct_counters(), names) ||
                                     std::ranges::any_of(p4Info.direct_meters(), names));
  };
}

}  // namespace

Extensions extensionsFor(const p4::config::v1::P4Info& p4Info) {
  Extensions extensions;
  extensions.noTables = p4Info.tables().empty() || p4Info.actions().empty();
  extensions.entities = true;  // any program may have its packets replicated
  extensions.strings = !pi::fe::proto::translation_tables(p4Info).empty();
  extensions.watchPorts = std::ranges::any_of(
      p4Info.action_profiles(), [](const auto& profile) { return profile.with_selector(); });
  const p4::config::v1::P4Info all = withAdditions(p4Info, extensions);
  const auto fieldNeeds = [](const MatchField& field) { return needsFields(field); };
  const auto parameterNeeds = [](const Action_Param& parameter) { return needsFields(parameter); };
  bool anyHighId = false;
  for (const auto& table : all.tables()) {
    anyHighId |= table.preamble().id() >= idsOfDefaults;
    extensions.fields |= std::ranges::any_of(table.match_fields(), fieldNeeds);
    extensions.defaultActions |= hasOpenDefault(table);
  }
  extensions.defaultActions &= !anyHighId;  // it might have the id of another table's default entry
  extensions.defaultResources =
      extensions.defaultActions && std::ranges::any_of(all.tables(), hasResourcesOfDefault(all));
  for (const auto& action : all.actions()) {
    extensions.fields |= std::ranges::any_of(action.params(), parameterNeeds);
  }
  for (const auto& header : all.controller_packet_metadata()) {
    extensions.packetHeaders |= needsPacketHeaders(header);
  }
  return extensions;
}

bool namesEgressPort(const p4::config::v1::P4Info& p4Info) {
  const auto isPort = [](const auto& field) { return field.name() == "egress_port"; };
  return std::ranges::any_of(p4Info.controller_packet_metadata(), [&](const auto& header) {
    const auto& fields = header.metadata();
    return header.preamble().name() == "packet_out" && std::ranges::any_of(fields, isPort) &&
           std::ranges::all_of(fields, [](const auto& field) { return field.bitwidth() > 0; });
  });
}

p4::config::v1::P4Info withAdditions(const p4::config::v1::P4Info& p4Info,
                                     const Extensions& extensions) {
  p4::config::v1::P4Info all =
      extensions.strings ? pi::fe::proto::with_translation_tables(p4Info) : p4Info;
  if (!extensions.entities) return all;
  return pi::fe::proto::with_entity_tables(all, extensions.watchPorts);
}

Extensions readExtensions(const cJSON& p4rtc, Findings* findings) {
  Extensions extensions;
  const cJSON* object = cJSON_GetObjectItemCaseSensitive(&p4rtc, "extensions");
  if (object == nullptr) return extensions;
  if (cJSON_IsObject(object) == 0) {
    findings->error("the device configuration", "its \"extensions\" is no object");
    return extensions;
  }
  for (const cJSON* item = object->child; item != nullptr; item = item->next) {
    readKey(*item, &extensions, findings);
  }
  const auto requireOther = [&](const char* name, bool isAsked, const char* other, bool isThere) {
    if (!isAsked || isThere) return;
    findings->error("the device configuration", "asks for the extension " + quoted(name) +
                                                    " without " + quoted(other) +
                                                    ", which it needs");
  };
  requireOther("strings", extensions.strings, "fields", extensions.fields);
  requireOther("default_resources", extensions.defaultResources, "default_actions",
               extensions.defaultActions);
  requireOther("watch_ports", extensions.watchPorts, "entities", extensions.entities);
  return extensions;
}

Extensions extensionsIn(std::string_view deviceConfig) {
  const Vela::Json document = Vela::parseJson(deviceConfig);
  const cJSON* root = Vela::jsonObject(document.get(), "p4rtc");
  Findings unsaid;
  return root == nullptr ? Extensions{} : readExtensions(*root, &unsaid);
}

bool isInitialEntry(const cJSON* entry, const Extensions& extensions) {
  return extensions.initialEntries && Vela::jsonNumber(entry, "initial").value_or(0) == 1;
}

void addExtensions(const Extensions& extensions, cJSON* p4rtc) {
  if (!extensions.any()) return;
  cJSON* object = cJSON_AddObjectToObject(p4rtc, "extensions");
  for (const Key& key : keys) {
    if (extensions.*(key.ability)) Vela::addNumber(object, key.name, version);
  }
}

}  // namespace Pipeline
