// Header types, headers, stacks and unions.
#include "p4/program/ExpressionReader.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

constexpr uint32_t maxFieldBits = maxNumberBits / 2;
constexpr uint32_t maxHeaderBits = 8 * 16384;
constexpr size_t maxObjects = 16384;
constexpr size_t maxFields = 4096;  // of a header

void checkCount(const Node& section) {
  if (section.size() > maxObjects)
    section.fail("more than " + std::to_string(maxObjects) + " are not executed");
}

Field readField(const Node& node, const HeaderType& type) {
  if (node.size() < 2) node.fail("[name, bits] is wanted here");
  Field field{.name = node.at(0).name(), .bitOffset = type.bits};
  if (node.at(1).isText()) {
    if (node.at(1).text() != "*") node.at(1).fail("a number of bits or \"*\" is wanted here");
    if (type.varbitField != absent) node.fail("a header has one varbit field at most");
    field.varbit = true;
    return field;
  }
  field.bits = node.at(1).integer();
  if (field.bits == 0 || field.bits > maxFieldBits)
    node.at(1).fail("fields of 1 to " + std::to_string(maxFieldBits) + " bits are executed");
  if (node.size() > 2) field.isSigned = node.at(2).boolean();
  if (node.size() > 3) field.saturating = node.at(3).boolean();
  if (field.isSigned && field.bits < 2) node.fail("a signed field has two bits at least");
  return field;
}

HeaderType readHeaderType(const Node& node) {
  HeaderType type{.name = node["name"].name()};
  if (node["fields"].size() > maxFields) node["fields"].fail("the header has too many fields");
  for (const Node& element : node["fields"].elements()) {
    Field field = readField(element, type);
    for (const Field& other : type.fields)
      if (other.name == field.name) element.fail("a second field " + quoted(field.name));
    if (field.varbit) type.varbitField = static_cast<uint32_t>(type.fields.size());
    type.bits += field.bits;
    if (type.bits > maxHeaderBits) element.fail("the header is too long");
    type.fields.push_back(std::move(field));
  }
  if (type.bits % 8) node.fail("the fields of " + quoted(type.name) + " do not fill whole bytes");
  type.maxBytes = node["max_length"].integerOr(0);
  return type;
}

std::vector<uint32_t> readIds(const Node& node, size_t limit) {
  std::vector<uint32_t> ids;
  for (const Node& element : node.elements()) {
    ids.push_back(element.integer());
    if (ids.back() >= limit) element.fail("nothing has the id " + std::to_string(ids.back()));
  }
  return ids;
}

void checkId(const Node& node, size_t position) {
  if (node["id"].integer() != position)
    node["id"].fail("ids of this section count 0, 1, 2 and so on; " + std::to_string(position) +
                    " is wanted here");
}

}  // namespace

void readHeaderTypes(const Node& section, Names& names) {
  checkCount(section);
  std::vector<HeaderType>& types = names.program.headerTypes;
  for (const Node& node : section.elements()) {
    names.headerTypes.add(node, node["name"].name(), static_cast<uint32_t>(types.size()));
    types.push_back(readHeaderType(node));
    const Node length = node["length_exp"];
    if (length.present() && types.back().varbitField != absent)
      types.back().varbitBits =
          ExpressionReader(names)
              .withArguments(static_cast<uint32_t>(types.back().fields.size()))
              .read(length, Type::data);
  }
}

void readHeaders(const Node& section, Names& names) {
  checkCount(section);
  for (const Node& node : section.elements()) {
    std::vector<Header>& headers = names.program.headers;
    checkId(node, headers.size());
    names.headers.add(node, node["name"].name(), static_cast<uint32_t>(headers.size()));
    headers.push_back({.name = node["name"].name(),
                       .type = names.headerTypes.find(node["header_type"]),
                       .metadata = node["metadata"].booleanOr(false)});
    if (headers.back().metadata && names.program.typeOf(headers.size() - 1).varbitField != absent)
      node.fail("metadata with a varbit field is not executed");
  }
}

void readStacks(const Node& section, Names& names) {
  checkCount(section);
  for (const Node& node : section.elements()) {
    std::vector<HeaderStack>& stacks = names.program.stacks;
    checkId(node, stacks.size());
    names.stacks.add(node, node["name"].name(), static_cast<uint32_t>(stacks.size()));
    stacks.push_back({node["name"].name(), names.headerTypes.find(node["header_type"]),
                      readIds(node["header_ids"], names.program.headers.size())});
    const HeaderStack& stack = stacks.back();
    if (stack.headers.empty() || node["size"].integer() != stack.headers.size())
      node["size"].fail("the size is not the number of the elements");
    for (const uint32_t header : stack.headers)
      if (names.program.headers[header].type != stack.type ||
          names.program.headers[header].metadata)
        node["header_ids"].fail("header " + quoted(names.program.headers[header].name) +
                                " does not fit the stack");
  }
}

void readUnionTypes(const Node& section, Names& names) {
  checkCount(section);
  for (const Node& node : section.elements()) {
    names.unionTypes.add(node, node["name"].name(),
                         static_cast<uint32_t>(names.unionMembers.size()));
    std::vector<Names::UnionMember> members;
    for (const Node& member : node["headers"].elements())
      members.push_back({member.at(0).name(), names.headerTypes.find(member.at(1))});
    names.unionMembers.push_back(std::move(members));
  }
}

void readUnions(const Node& section, Names& names) {
  checkCount(section);
  for (const Node& node : section.elements()) {
    std::vector<HeaderUnion>& unions = names.program.unions;
    const auto position = static_cast<uint32_t>(unions.size());
    checkId(node, position);
    names.unions.add(node, node["name"].name(), position);
    unions.push_back({node["name"].name(), names.unionTypes.find(node["union_type"]),
                      readIds(node["header_ids"], names.program.headers.size())});
    if (unions.back().headers.size() != names.unionMembers[unions.back().type].size())
      node["header_ids"].fail("the union's type has another number of members");
    const std::vector<Names::UnionMember>& wanted = names.unionMembers[unions.back().type];
    for (size_t i = 0; i < wanted.size(); ++i) {
      Header& member = names.program.headers[unions.back().headers[i]];
      if (member.metadata || member.headerUnion != absent || member.type != wanted[i].type)
        node["header_ids"].fail("header " + quoted(member.name) + " cannot be a member");
      member.headerUnion = position;
    }
  }
}

void readUnionStacks(const Node& section, Names& names) {
  checkCount(section);
  for (const Node& node : section.elements()) {
    std::vector<UnionStack>& stacks = names.program.unionStacks;
    checkId(node, stacks.size());
    names.unionStacks.add(node, node["name"].name(), static_cast<uint32_t>(stacks.size()));
    stacks.push_back({node["name"].name(), names.unionTypes.find(node["union_type"]),
                      readIds(node["header_union_ids"], names.program.unions.size())});
    if (stacks.back().unions.empty()) node.fail("a stack without elements");
    for (const uint32_t element : stacks.back().unions)
      if (names.program.unions[element].type != stacks.back().type)
        node["header_union_ids"].fail("a union of another type");
  }
}

void readAliases(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    if (node.size() != 2) node.fail("[name, [header, field]] is wanted here");
    const FieldRef field = names.numberField(node.at(1));
    if (field.field == validBit) node.at(1).fail("an alias of a validity bit is not executed");
    names.program.aliases[node.at(0).name()] = field;
  }
}

void readErrors(const Node& section, Names& names) {
  uint32_t next = 0;
  for (const Node& node : section.elements()) {
    const uint32_t value = node.at(1).integer();
    if (!names.program.errors.emplace(node.at(0).name(), value).second)
      node.fail("a second error of the name " + quoted(node.at(0).text()));
    next = std::max(next, value + 1);
  }
  for (const char* core : {"NoError", "PacketTooShort", "NoMatch", "StackOutOfBounds",
                           "HeaderTooShort", "ParserTimeout", "ParserInvalidArgument"})
    if (names.program.errors.emplace(core, next).second) ++next;
}

void readFieldLists(const Node& section, std::vector<FieldList>& lists, Names& names) {
  for (const Node& node : section.elements()) {
    FieldList list{.id = node["id"].integer(), .name = node["name"].textOr("")};
    if (list.id == 0 || list.id > 0xffff) node["id"].fail("ids of 1 to 65535 are executed");
    for (const FieldList& other : lists)
      if (other.id == list.id)
        node["id"].fail("a second list of the id " + std::to_string(list.id));
    for (const Node& element : node["elements"].elements()) {
      const std::string type = element["type"].text();
      if (type == "hexstr") continue;
      if (type != "field") element["type"].fail(quoted(type) + " is no element of a field list");
      list.fields.push_back(names.numberField(element["value"]));
    }
    lists.push_back(std::move(list));
  }
}

}  // namespace P4
