// Actions.
#include "p4/program/PrimitiveReader.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

Action readAction(const Node& node, const Names& names) {
  Action action{.name = node["name"].name(), .id = node["id"].integer()};
  for (const Node& parameter : node["runtime_data"].elements()) {
    uint32_t bits = parameter["bitwidth"].integer();
    if (bits == 0) bits = 64;  // old compilers leave the width of unused parameters open
    if (bits > maxNumberBits / 2)
      parameter["bitwidth"].fail("parameters of that width are not executed");
    action.parameters.push_back({parameter["name"].textOr(""), bits});
  }
  if (action.parameters.size() > 256)
    node["runtime_data"].fail("the action has too many parameters");
  for (const Node& call : node["primitives"].elements())
    action.calls.push_back(
        readPrimitive(call, static_cast<uint32_t>(action.parameters.size()), names));
  return action;
}

}  // namespace

void readActions(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    const auto position = static_cast<uint32_t>(names.program.actions.size());
    Action action = readAction(node, names);
    if (!names.actionsById.emplace(action.id, position).second)
      node["id"].fail("a second action of the id " + std::to_string(action.id));
    names.actionsByName.emplace(action.name, position);
    names.program.actions.push_back(std::move(action));
  }
}

}  // namespace P4
