// Lookup in a P4Info, and its consistency.
#include "pipeline/P4InfoIndex.h"

#include <set>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

using p4::config::v1::MatchField;
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
bool namesOneOf(const p4::config::v1::Table& table, const Resources& resources) {
  for (const uint32_t id : table.direct_resource_ids()) {
    for (const auto& resource : resources) {
      if (resource.preamble().id() == id) return true;
    }
  }
  return false;
}

// Looks over one P4Info; each method adds to the findings.
class ReferenceCheck {
 public:
  ReferenceCheck(const P4InfoIndex& index, Findings* findings)
      : index_(index), p4Info_(index.p4Info()), findings_(findings) {}

  void run() {
    checkIds();
    for (const auto& table : p4Info_.tables()) checkTable(table);
    for (const auto& action : p4Info_.actions()) {
      checkInnerIds("action " + action.preamble().name(), "parameter", action.params());
    }
    for (const auto& profile : p4Info_.action_profiles()) checkProfile(profile);
    checkDirectResources("direct counter", p4Info_.direct_counters());
    checkDirectResources("direct meter", p4Info_.direct_meters());
    for (const auto& header : p4Info_.controller_packet_metadata()) {
      checkInnerIds("header " + header.preamble().name(), "metadata field", header.metadata());
    }
  }

 private:
  void checkIds() {
    checkKind("table", p4Info_.tables());
    checkKind("action", p4Info_.actions());
    checkKind("action profile", p4Info_.action_profiles());
    checkKind("counter", p4Info_.counters());
    checkKind("direct counter", p4Info_.direct_counters());
    checkKind("meter", p4Info_.meters());
    checkKind("direct meter", p4Info_.direct_meters());
    checkKind("header", p4Info_.controller_packet_metadata());
    checkKind("value set", p4Info_.value_sets());
    checkKind("register", p4Info_.registers());
    checkKind("digest", p4Info_.digests());
  }

  template <typename Objects>
  void checkKind(const std::string& kind, const Objects& objects) {
    for (const auto& object : objects) {
      const std::string name = kind + ' ' + object.preamble().name();
      const uint32_t id = object.preamble().id();
      if (id == 0) {
        findings_->error(name, "has the id 0, which is no id");
      } else if (!ids_.emplace(id, name).second) {
        findings_->error(name, "has the id " + std::to_string(id) + ", as " + ids_[id] + " has");
      }
    }
  }

  template <typename Objects>
  void checkInnerIds(const std::string& owner, const std::string& kind, const Objects& objects) {
    std::set<uint32_t> seen;
    for (const auto& object : objects) {
      const std::string what = kind + ' ' + quoted(object.name());
      if (object.id() == 0) findings_->error(owner, what + " has the id 0, which is no id");
      if (!seen.insert(object.id()).second) {
        findings_->error(
            owner, what + " has the id " + std::to_string(object.id()) + ", as another one has");
      }
    }
  }

  void checkTable(const p4::config::v1::Table& table) {
    const std::string name = "table " + table.preamble().name();
    checkInnerIds(name, "match field", table.match_fields());
    for (const auto& ref : table.action_refs()) {
      if (index_.action(ref.id()) == nullptr) dangling(name, "action", ref.id());
    }
    for (const MatchField& field : table.match_fields()) {
      if (field.match_case() == MatchField::kMatchType &&
          !MatchField::MatchType_IsValid(field.match_type())) {
        findings_->error(name, "match field " + quoted(field.name()) +
                                   " has the unknown match type " +
                                   std::to_string(field.match_type()));
      }
    }
    if (table.implementation_id() != 0 &&
        index_.actionProfile(table.implementation_id()) == nullptr)
      dangling(name, "action profile", table.implementation_id());
    for (const uint32_t id : table.direct_resource_ids()) {
      if (!isDirectResource(id)) dangling(name, "direct resource", id);
    }
    const uint32_t defaultAction = table.const_default_action_id();
    if (defaultAction != 0 && index_.action(defaultAction) == nullptr)
      dangling(name, "default action", defaultAction);
  }

  bool isDirectResource(uint32_t id) const {
    const auto it = ids_.find(id);
    return it != ids_.end() && it->second.starts_with("direct ");
  }

  template <typename Resources>
  void checkDirectResources(const std::string& kind, const Resources& resources) {
    for (const auto& resource : resources) {
      const uint32_t id = resource.direct_table_id();
      if (index_.table(id) == nullptr)
        dangling(kind + ' ' + resource.preamble().name(), "table", id);
    }
  }

  void checkProfile(const p4::config::v1::ActionProfile& profile) {
    for (const uint32_t id : profile.table_ids()) {
      if (index_.table(id) == nullptr)
        dangling("action profile " + profile.preamble().name(), "table", id);
    }
  }

  void dangling(const std::string& object, const std::string& what, uint32_t id) {
    findings_->error(
        object, "names the " + what + ' ' + std::to_string(id) + ", which is not in the P4Info");
  }

  const P4InfoIndex& index_;
  const P4Info& p4Info_;
  Findings* findings_;
  std::map<uint32_t, std::string> ids_;  // and whose they are
};

std::string listed(const std::vector<std::string>& names) {
  constexpr size_t most = 8;
  std::string text;
  for (size_t i = 0; i < names.size() && i < most; ++i) text += (i == 0 ? "" : ", ") + names[i];
  if (names.size() > most) text += ", and " + std::to_string(names.size() - most) + " more";
  return text.empty() ? "none" : text;
}

}  // namespace

P4InfoIndex::P4InfoIndex(const P4Info& p4Info)
    : p4Info_(p4Info),
      tables_(byId(p4Info.tables())),
      actions_(byId(p4Info.actions())),
      profiles_(byId(p4Info.action_profiles())) {}

const p4::config::v1::Table* P4InfoIndex::table(uint32_t id) const { return found(tables_, id); }
const p4::config::v1::Action* P4InfoIndex::action(uint32_t id) const { return found(actions_, id); }
const p4::config::v1::ActionProfile* P4InfoIndex::actionProfile(uint32_t id) const {
  return found(profiles_, id);
}

bool P4InfoIndex::hasDirectCounter(const p4::config::v1::Table& table) const {
  return namesOneOf(table, p4Info_.direct_counters());
}

bool P4InfoIndex::hasDirectMeter(const p4::config::v1::Table& table) const {
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

const p4::config::v1::Table& P4InfoIndex::tableNamed(std::string_view name) const {
  std::vector<std::string> names;
  std::vector<std::string> aliases;
  for (const auto& table : p4Info_.tables()) {
    names.push_back(table.preamble().name());
    aliases.push_back(table.preamble().alias());
  }
  return p4Info_.tables(static_cast<int>(indexNamed("table", name, names, aliases)));
}

const p4::config::v1::Action& P4InfoIndex::actionNamed(const p4::config::v1::Table& table,
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

void checkReferences(const P4InfoIndex& index, Findings* findings) {
  ReferenceCheck(index, findings).run();
}

}  // namespace Pipeline
