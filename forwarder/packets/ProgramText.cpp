#include "forwarder/packets/ProgramText.h"

#include <fmt/format.h>

#include "forwarder/base/Answer.h"

namespace Forwarder {
namespace {

const char* kindName(P4::MatchKind kind) {
  switch (kind) {
    case P4::MatchKind::exact:
      return "exact";
    case P4::MatchKind::lpm:
      return "lpm";
    case P4::MatchKind::ternary:
      return "ternary";
    case P4::MatchKind::range:
      return "range";
    case P4::MatchKind::valid:
      return "valid";
  }
  return "?";
}

std::string actionText(const P4::Action& action) {
  std::string text = action.name + "(";
  for (const P4::Parameter& parameter : action.parameters) {
    if (!text.ends_with('(')) text += ", ";
    text += fmt::format("{} {}", parameter.name, parameter.bits);
  }
  return text + ")";
}

std::string extrasText(const P4::Program& program, const P4::Table& table) {
  std::string text;
  if (table.profile != P4::absent) text += ", profile " + program.profiles[table.profile].name;
  if (table.counters) text += ", counter";
  if (table.meters != P4::absent) text += ", meter " + program.meters[table.meters].name;
  if (table.ageing) text += ", ageing";
  if (table.immutable) text += ", constant";
  return text;
}

std::string tableText(P4::Engine& engine, uint32_t position) {
  const P4::Program& program = engine.program();
  const P4::Table& table = program.tables[position];
  std::string text = fmt::format(
      "table {} {}: size {}, entries {}{}\n", table.name, table.egress ? "egress" : "ingress",
      table.maxSize, engine.tables().entries(position).size(), extrasText(program, table));
  for (const P4::KeyElement& element : table.key) {
    text += fmt::format("  key {} {} {}\n", element.name, kindName(element.kind), element.bits);
  }
  for (const uint32_t action : table.actions) {
    text += fmt::format("  action {}\n", actionText(program.actions[action]));
  }
  if (table.defaultAction && table.defaultAction->action != P4::absent) {
    text += fmt::format("  default {}{}\n", program.actions[table.defaultAction->action].name,
                        table.defaultActionConstant ? ", constant" : "");
  }
  return text;
}

std::string headersText(const P4::Program& program) {
  std::string text;
  for (const P4::Header& header : program.headers) {
    if (header.metadata) continue;
    text += fmt::format("header {}:", header.name);
    for (const P4::Field& field : program.headerTypes[header.type].fields) {
      text += field.varbit ? fmt::format(" {} varbit", field.name)
                           : fmt::format(" {} {}", field.name, field.bits);
    }
    text += '\n';
  }
  return text;
}

template <typename Arrays>
std::string arraysText(const char* kind, const Arrays& arrays) {
  std::string text;
  for (const auto& array : arrays) {
    text += fmt::format("{} {}: size {}\n", kind, array.name, array.size);
  }
  return text;
}

}  // namespace

std::string programText(P4::Engine& engine) {
  const P4::Program& program = engine.program();
  std::string text = program.name.empty() ? "" : fmt::format("program {}\n", program.name);
  text += headersText(program);
  for (const P4::ParserState& state : program.states) text += "state " + state.name + '\n';
  for (uint32_t i = 0; i < program.tables.size(); ++i) text += tableText(engine, i);
  for (const P4::ActionProfile& profile : program.profiles) {
    text += fmt::format("profile {}{}\n", profile.name, profile.withSelector ? ": selector" : "");
  }
  text += arraysText("counter", program.counters);
  text += arraysText("meter", program.meters);
  for (const P4::RegisterArrayInfo& array : program.registers) {
    text += fmt::format("register {}: size {}, {} bits\n", array.name, array.size, array.bits);
  }
  for (const P4::ValueSet& set : program.valueSets) {
    text += fmt::format("value set {}: {} bits\n", set.name, set.bits);
  }
  for (const P4::FieldList& list : program.learnLists) text += "digest " + list.name + '\n';
  return text;
}

std::string programTableText(P4::Engine& engine, std::string_view table) {
  const auto position = P4::tableNamed(engine.program(), table);
  if (position) return tableText(engine, *position);
  throw CommandError(fmt::format("program: there is no table {}; try: program", table));
}

}  // namespace Forwarder
