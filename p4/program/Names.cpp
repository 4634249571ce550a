#include "p4/program/Names.h"

namespace P4 {

uint32_t Names::fieldOfType(const Node& place, uint32_t type, const std::string& name) const {
  if (name == "$valid$") return validBit;
  const HeaderType& owner = program.headerTypes[type];
  for (uint32_t i = 0; i < owner.fields.size(); ++i)
    if (owner.fields[i].name == name) return i;
  place.fail("header type " + quoted(owner.name) + " has no field " + quoted(name));
}

FieldRef Names::field(const Node& node) const {
  if (node.size() != 2) node.fail("[header, field] is wanted here");
  const uint32_t header = headers.find(node.at(0));
  return {header, fieldOfType(node, program.headers[header].type, node.at(1).text())};
}

FieldRef Names::numberField(const Node& node) const {
  const FieldRef ref = field(node);
  if (ref.field != validBit && program.typeOf(ref.header).fields[ref.field].varbit)
    node.fail("a varbit field is no number");
  return ref;
}

uint32_t Names::memberOfUnion(const Node& place, uint32_t unionType,
                              const std::string& name) const {
  const std::vector<UnionMember>& members = unionMembers[unionType];
  for (uint32_t i = 0; i < members.size(); ++i)
    if (members[i].name == name) return i;
  place.fail("the header union has no member " + quoted(name));
}

}  // namespace P4
