// Pipelines: tables, action profiles, conditionals and action calls.
#include <algorithm>

#include "p4/program/ExpressionReader.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

// The control nodes of both pipelines, by name.
class ControlNames {
 public:
  void add(const Node& node, NodeRef::Kind kind, uint32_t index) {
    nodes_.add(node, node["name"].name(), static_cast<uint32_t>(refs_.size()));
    refs_.push_back({kind, index});
  }
  NodeRef find(const Node& node) const {
    return node.present() ? refs_[nodes_.find(node)] : NodeRef{};
  }

 private:
  NameMap nodes_{"table, conditional or action call"};
  std::vector<NodeRef> refs_;
};

class TableReader {
 public:
  TableReader(Names& names, const ControlNames& nodes) : names_(names), nodes_(nodes) {}

  void read(const Node& node, Table& table) {
    table.name = node["name"].name();
    table.id = node["id"].integerOr(0);
    readKey(node["key"], table);
    table.maxSize = node["max_size"].integerOr(1024);
    table.counters = node["with_counters"].booleanOr(false);
    table.ageing = node["support_timeout"].booleanOr(false);
    if (node["direct_meters"].present()) {
      table.meters = names_.meters.find(node["direct_meters"]);
      if (!names_.program.meters[table.meters].direct)
        node["direct_meters"].fail("the meter array is not direct");
    }
    readProfile(node, table);
    readActions(node, table);
    readNext(node, table);
    readDefault(node["default_entry"], table);
    readEntries(node["entries"], table);
  }

 private:
  MatchKind readKind(const Node& node) {
    const std::string kind = node.text();
    if (kind == "exact") return MatchKind::exact;
    if (kind == "lpm") return MatchKind::lpm;
    if (kind == "ternary") return MatchKind::ternary;
    if (kind == "range") return MatchKind::range;
    if (kind == "valid") return MatchKind::valid;
    node.fail("the match type " + quoted(kind) + " is not executed");
  }

  KeyElement readElement(const Node& node) {
    KeyElement element{.kind = readKind(node["match_type"])};
    const Node target = node["target"];
    if (element.kind == MatchKind::valid) {
      element.field = {names_.headers.find(target.isArray() ? target.at(0) : target), validBit};
      element.bits = 1;
    } else {
      element.field = names_.numberField(target);
      element.bits = names_.program.bitsOf(element.field);
      if (node["mask"].present()) element.mask = node["mask"].bytes((element.bits + 7) / 8);
    }
    element.name = node["name"].textOr("");
    if (element.name.empty())
      element.name =
          target.isArray() ? target.at(0).text() + "." + target.at(1).text() : target.text();
    return element;
  }

  void readKey(const Node& node, Table& table) {
    uint32_t prefixes = 0;
    uint32_t words = 0;
    for (const Node& element : node.elements()) {
      table.key.push_back(readElement(element));
      const KeyElement& last = table.key.back();
      if (last.kind == MatchKind::lpm && ++prefixes > 1)
        element.fail("a table with two lpm keys is not executed");
      if (last.kind != MatchKind::valid) table.kind = std::max(table.kind, last.kind);
      words += (last.bits + 63) / 64;
    }
    if (words > maxKeyWords) node.fail("the match key is too long");
  }

  void readProfile(const Node& node, Table& table) {
    const std::string type = node["type"].textOr("simple");
    if (type == "simple") return;
    if (type == "indirect")
      table.type = TableKind::indirect;
    else if (type == "indirect_ws")
      table.type = TableKind::indirectWithGroups;
    else
      node["type"].fail("tables of type " + quoted(type) + " are not executed");
    if (node["action_profile"].present())
      table.profile = names_.profiles.find(node["action_profile"]);
    else
      table.profile = makeProfile(node);
    if (table.type == TableKind::indirectWithGroups &&
        !names_.program.profiles[table.profile].withSelector)
      node.fail("the action profile has no selector");
  }

  // Older files declare a profile in the table.
  uint32_t makeProfile(const Node& node) {
    const std::string name = node["act_prof_name"].name();
    const auto position = static_cast<uint32_t>(names_.program.profiles.size());
    names_.profiles.add(node["act_prof_name"], name, position);
    ActionProfile profile{.name = name};
    if (node["selector"].present()) {
      profile.withSelector = true;
      profile.selector = readCalculation(node["selector"], "algo", names_);
    }
    names_.program.profiles.push_back(std::move(profile));
    return position;
  }

  void readActions(const Node& node, Table& table) {
    const Node ids = node["action_ids"];
    for (const Node& element : (ids.present() ? ids : node["actions"]).elements()) {
      uint32_t position = absent;
      if (ids.present()) {
        const auto found = names_.actionsById.find(element.integer());
        if (found != names_.actionsById.end()) position = found->second;
      } else {
        const auto found = names_.actionsByName.find(element.text());
        if (found != names_.actionsByName.end()) position = found->second;
      }
      if (position == absent) element.fail("there is no such action");
      table.actions.push_back(position);
    }
    if (table.actions.size() > 4096) node["actions"].fail("the table has too many actions");
  }

  void readNext(const Node& node, Table& table) {
    table.nextByDefault = nodes_.find(node["base_default_next"]);
    const Node next = node["next_tables"];
    if (!next.present()) return;
    if (next["__HIT__"].present() || next["__MISS__"].present() || hasHitAndMiss(next)) {
      table.nextOnHit = nodes_.find(next["__HIT__"]);
      table.nextOnMiss = nodes_.find(next["__MISS__"]);
      return;
    }
    for (const uint32_t action : table.actions)
      table.nextByAction[action] = nodes_.find(next[names_.program.actions[action].name.c_str()]);
  }

  // Both keys may be there with null, which ends the pipeline.
  static bool hasHitAndMiss(const Node& next) {
    return next.hasKey("__HIT__") || next.hasKey("__MISS__");
  }

  ActionCall readCall(const Node& node, const Table& table) {
    ActionCall call;
    const auto found = names_.actionsById.find(node["action_id"].integer());
    if (found == names_.actionsById.end()) node["action_id"].fail("there is no such action");
    call.action = found->second;
    if (std::find(table.actions.begin(), table.actions.end(), call.action) == table.actions.end())
      node["action_id"].fail("the action is not one of the table");
    Action& action = names_.program.actions[call.action];
    const Node data = node["action_data"];
    if (data.size() != action.parameters.size())
      data.fail("the action " + quoted(action.name) + " takes " +
                std::to_string(action.parameters.size()) + " parameters");
    for (const Node& element : data.elements()) {
      Parameter& parameter = action.parameters[call.arguments.size()];
      call.arguments.push_back(element.number());
      const Number& value = call.arguments.back();
      if (value < 0) element.fail("a negative argument is not executed");
      parameter.bits = std::max(parameter.bits, bitLength(value));  // arguments are not cut
    }
    return call;
  }

  void readDefault(const Node& node, Table& table) {
    if (!node.present()) return;
    table.defaultAction = readCall(node, table);
    table.defaultActionConstant = node["action_const"].booleanOr(false);
    table.defaultArgumentsConstant = node["action_entry_const"].booleanOr(false);
  }

  MatchElement readMatch(const Node& node, const KeyElement& key) {
    if (readKind(node["match_type"]) != key.kind)
      node["match_type"].fail("the match type is not the one of the key");
    const size_t bytes = (key.bits + 7) / 8;
    MatchElement element;
    switch (key.kind) {
      case MatchKind::valid:
        element.value = std::string(1, node["key"].boolean() ? '\1' : '\0');
        break;
      case MatchKind::range:
        element.value = node["start"].bytes(bytes);
        element.mask = node["end"].bytes(bytes);
        break;
      case MatchKind::ternary:
        element.mask = node["mask"].bytes(bytes);
        [[fallthrough]];
      default:
        element.value = node["key"].bytes(bytes);
    }
    if (key.kind == MatchKind::lpm) {
      element.prefixLength = node["prefix_length"].integer();
      if (element.prefixLength > key.bits)
        node["prefix_length"].fail("the prefix is longer than the field");
    }
    return element;
  }

  void readEntries(const Node& node, Table& table) {
    if (!node.present()) return;
    table.immutable = true;
    if (table.type != TableKind::simple && node.size())
      node.fail("entries of a table with action profile");
    for (const Node& element : node.elements()) {
      ConstantEntry entry{.priority = element["priority"].integerOr(0),
                          .action = readCall(element["action_entry"], table)};
      const std::vector<Node> match = element["match_key"].elements();
      if (match.size() != table.key.size() || match.empty())
        element["match_key"].fail("the entry does not fit the table's key");
      for (size_t i = 0; i < match.size(); ++i)
        entry.match.push_back(readMatch(match[i], table.key[i]));
      table.entries.push_back(std::move(entry));
    }
    table.maxSize = static_cast<uint32_t>(table.entries.size());
  }

  Names& names_;
  const ControlNames& nodes_;
};

class PipelineReader {
 public:
  explicit PipelineReader(Names& names) : names_(names) {}

  void announce(const Node& pipeline) {
    Program& program = names_.program;
    for (const Node& node : pipeline["tables"].elements()) {
      nodes_.add(node, NodeRef::Kind::table, tables_++);
      program.tables.emplace_back();
    }
    for (const Node& node : pipeline["conditionals"].elements()) {
      nodes_.add(node, NodeRef::Kind::conditional, conditionals_++);
      program.conditionals.emplace_back();
    }
    for (const Node& node : pipeline["action_calls"].elements()) {
      nodes_.add(node, NodeRef::Kind::call, calls_++);
      program.calls.emplace_back();
    }
  }

  NodeRef read(const Node& pipeline, bool egress) {
    readProfiles(pipeline["action_profiles"]);
    for (const Node& node : pipeline["tables"].elements()) {
      Table& table = names_.program.tables[nextTable_++];
      table.egress = egress;
      TableReader(names_, nodes_).read(node, table);
    }
    for (const Node& node : pipeline["conditionals"].elements())
      readConditional(node, names_.program.conditionals[nextConditional_++]);
    for (const Node& node : pipeline["action_calls"].elements())
      readCall(node, names_.program.calls[nextCall_++]);
    return nodes_.find(pipeline["init_table"]);
  }

 private:
  void readProfiles(const Node& section) {
    for (const Node& node : section.elements()) {
      names_.profiles.add(node, node["name"].name(),
                          static_cast<uint32_t>(names_.program.profiles.size()));
      ActionProfile profile{.name = node["name"].text()};
      if (node["selector"].present()) {
        profile.withSelector = true;
        profile.selector = readCalculation(node["selector"], "algo", names_);
      }
      names_.program.profiles.push_back(std::move(profile));
    }
  }

  void readConditional(const Node& node, Conditional& conditional) {
    conditional.name = node["name"].text();
    conditional.condition = ExpressionReader(names_).readCondition(node["expression"]);
    if (!node.hasKey("true_next") && !node.hasKey("false_next"))
      node.fail("true_next or false_next is wanted here");
    conditional.onTrue = nodes_.find(node["true_next"]);
    conditional.onFalse = nodes_.find(node["false_next"]);
  }

  void readCall(const Node& node, CallNode& call) {
    const auto found = names_.actionsById.find(node["action_id"].integer());
    if (found == names_.actionsById.end()) node["action_id"].fail("there is no such action");
    call.action = found->second;
    if (!names_.program.actions[call.action].parameters.empty())
      node["action_id"].fail("an action with parameters cannot be called");
    call.next = nodes_.find(node["next_node"]);
  }

  Names& names_;
  ControlNames nodes_;
  uint32_t tables_ = 0, conditionals_ = 0, calls_ = 0;
  uint32_t nextTable_ = 0, nextConditional_ = 0, nextCall_ = 0;
};

const Node* pipelineNamed(const std::vector<Node>& pipelines, const char* name) {
  for (const Node& pipeline : pipelines)
    if (pipeline["name"].text() == name) return &pipeline;
  return nullptr;
}

}  // namespace

void readPipelines(const Node& section, Names& names) {
  const std::vector<Node> pipelines = section.elements();
  const Node* ingress = pipelineNamed(pipelines, "ingress");
  const Node* egress = pipelineNamed(pipelines, "egress");
  if (!ingress || !egress)
    section.fail(
        "v1model's pipelines are named \"ingress\" and \"egress\"; a program for another "
        "architecture is not executed");
  PipelineReader reader(names);
  reader.announce(*ingress);
  reader.announce(*egress);
  names.program.ingress = reader.read(*ingress, false);
  names.program.egress = reader.read(*egress, true);
}

}  // namespace P4
