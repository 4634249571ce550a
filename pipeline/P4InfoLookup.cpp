// Lookup in a P4Info, and its consistency.
#include "pipeline/P4InfoLookup.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>

#include "PI/frontends/proto/p4info_fault.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Extensions.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

using p4::config::v1::P4Info;

template <typename Objects>
auto byId(const Objects& objects) {
  std::map<uint32_t, typename Objects::const_pointer> result;
  for (const auto& object : objects) result.emplace(object.preamble().id(), &object);
  return result;
}

template <typename Map>
typename Map::mapped_type found(const Map& map, uint32_t id) {
  const auto it = map.find(id);
  return it == map.end() ? nullptr : it->second;
}

template <typename Resources>
bool hasId(const Resources& resources, uint32_t id) {
  return std::any_of(resources.begin(), resources.end(),
                     [&](const auto& resource) { return resource.preamble().id() == id; });
}

template <typename Resources>
bool namesOneOf(const p4::config::v1::Table& table, const Resources& resources) {
  const auto& ids = table.direct_resource_ids();
  return std::any_of(ids.begin(), ids.end(), [&](uint32_t id) { return hasId(resources, id); });
}

// The agent finds nothing to start from without them: its P4Info is read as JSON, which leaves
// empty sections out.
void checkMandatorySections(const P4Info& p4Info, Findings* findings) {
  if (p4Info.actions().empty()) {
    findings->error("P4Info", "has no actions; the agent needs one",
                    {"Cannot find actions section in the P4Info file"});
  }
  if (p4Info.tables().empty()) {
    findings->error("P4Info", "has no tables; the agent needs one",
                    {"Cannot find tables section in the P4Info file"});
  }
}

void checkJsonForm(const P4Info& p4Info, Findings* findings) {
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(p4Info, &json);
  if (status.ok()) return;
  findings->error("P4Info", "has no JSON form: " + std::string(status.message()),
                  {"Failed to convert p4Info to JSON " + status.ToString()});
}

template <typename Resources>
void checkDirectResources(const char* kind, const Resources& resources, Findings* findings) {
  for (const auto& resource : resources) {
    if (resource.direct_table_id() != 0) continue;
    findings->warning(kind + resource.preamble().name(),
                      "names no table; it belongs to the tables that name it");
  }
}

std::string listed(const std::vector<std::string>& names) {
  constexpr size_t most = 8;
  std::string text;
  for (size_t i = 0; i < names.size() && i < most; ++i) text += (i == 0 ? "" : ", ") + names[i];
  if (names.size() > most) text += ", and " + std::to_string(names.size() - most) + " more";
  return text.empty() ? "none" : text;
}

}  // namespace

P4InfoLookup::P4InfoLookup(const P4Info& p4Info, const Extensions& extensions)
    : P4InfoLookup(std::make_shared<const P4Info>(withAdditions(p4Info, extensions))) {}

P4InfoLookup::P4InfoLookup(std::shared_ptr<const P4Info> extended)
    : extended_(std::move(extended)),
      p4Info_(*extended_),
      tables_(byId(p4Info_.tables())),
      actions_(byId(p4Info_.actions())),
      profiles_(byId(p4Info_.action_profiles())) {}

P4InfoLookup::P4InfoLookup(const P4Info& p4Info)
    : p4Info_(p4Info),
      tables_(byId(p4Info.tables())),
      actions_(byId(p4Info.actions())),
      profiles_(byId(p4Info.action_profiles())) {}

const p4::config::v1::Table* P4InfoLookup::table(uint32_t id) const { return found(tables_, id); }
const p4::config::v1::Action* P4InfoLookup::action(uint32_t id) const {
  return found(actions_, id);
}
const p4::config::v1::ActionProfile* P4InfoLookup::actionProfile(uint32_t id) const {
  return found(profiles_, id);
}

bool P4InfoLookup::isDirectResource(uint32_t id) const {
  return hasId(p4Info_.direct_counters(), id) || hasId(p4Info_.direct_meters(), id);
}

bool P4InfoLookup::hasDirectCounter(const p4::config::v1::Table& table) const {
  return namesOneOf(table, p4Info_.direct_counters());
}

bool P4InfoLookup::hasDirectMeter(const p4::config::v1::Table& table) const {
  return namesOneOf(table, p4Info_.direct_meters());
}

size_t indexNamed(std::string_view what, std::string_view text,
                  const std::vector<std::string>& names, const std::vector<std::string>& aliases) {
  std::vector<size_t> matches;
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] == text) return i;
    if (i < aliases.size() && aliases[i] == text) return i;
    if (namesObject(text, names[i])) matches.push_back(i);
  }
  if (matches.size() == 1) return matches[0];
  const std::string prefix = std::string(what) + ' ' + quoted(text);
  if (matches.empty()) {
    const std::string guess = didYouMean(text, names);
    throw PipelineError("no " + prefix + (guess.empty() ? "; there is: " + listed(names) : guess));
  }
  throw PipelineError(prefix + " could be " + quoted(names[matches[0]]) + " or " +
                      quoted(names[matches[1]]) + "; write more of the name");
}

const p4::config::v1::Table& P4InfoLookup::tableNamed(std::string_view name) const {
  std::vector<std::string> names;
  std::vector<std::string> aliases;
  for (const auto& table : p4Info_.tables()) {
    names.push_back(table.preamble().name());
    aliases.push_back(table.preamble().alias());
  }
  return p4Info_.tables(static_cast<int>(indexNamed("table", name, names, aliases)));
}

const p4::config::v1::Action& P4InfoLookup::actionNamed(const p4::config::v1::Table& table,
                                                        std::string_view name) const {
  std::vector<std::string> names;
  std::vector<std::string> aliases;
  std::vector<const p4::config::v1::Action*> actions;
  for (const auto& ref : table.action_refs()) {
    const auto* action = this->action(ref.id());
    if (action == nullptr) continue;
    actions.push_back(action);
    names.push_back(action->preamble().name());
    aliases.push_back(action->preamble().alias());
  }
  return *actions[indexNamed("action", name, names, aliases)];
}

void checkP4Info(const P4InfoLookup& index, Findings* findings, bool mayHaveNoTables) {
  const P4Info& p4Info = index.p4Info();
  if (!mayHaveNoTables) checkMandatorySections(p4Info, findings);
  checkJsonForm(p4Info, findings);
  if (const std::string fault = pi::fe::proto::p4info_fault(p4Info); !fault.empty()) {
    findings->error("", fault);
  }
  checkDirectResources("direct counter ", p4Info.direct_counters(), findings);
  checkDirectResources("direct meter ", p4Info.direct_meters(), findings);
  for (const auto& table : p4Info.tables()) {
    for (const uint32_t id : table.direct_resource_ids()) {
      if (index.isDirectResource(id)) continue;
      findings->warning("table " + table.preamble().name(),
                        "names the direct resource " + std::to_string(id) +
                            ", which is no direct counter or meter of the P4Info; it is ignored");
    }
  }
}

}  // namespace Pipeline
