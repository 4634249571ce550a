#include "p4/program/Program.h"

#include <cjson/cJSON.h>

#include <memory>

#include "p4/program/ProgramError.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

struct TreeDelete {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDelete>;

constexpr uint32_t newestMinorVersion = 24;

size_t lineOf(std::string_view text, const char* where) {
  if (!where || where < text.data() || where > text.data() + text.size()) return 1;
  size_t line = 1;
  for (const char* at = text.data(); at < where; ++at) line += *at == '\n';
  return line;
}

Tree parsed(std::string_view json) {
  const char* end = nullptr;
  Tree tree(cJSON_ParseWithLengthOpts(json.data(), json.size(), &end, false));
  if (!tree)
    throw ProgramError("line " + std::to_string(lineOf(json, end)),
                       "the compiled program is no JSON from here on");
  while (end < json.data() + json.size() &&
         (*end == '\0' || std::isspace(static_cast<unsigned char>(*end))))
    ++end;
  if (end != json.data() + json.size())
    throw ProgramError("line " + std::to_string(lineOf(json, end)),
                       "text stands behind the compiled program");
  if (!cJSON_IsObject(tree.get()))
    throw ProgramError("", "a compiled program is a JSON object, and this is none");
  return tree;
}

void checkVersion(const Node& version) {
  if (!version.present()) return;
  if (version.at(0).integer() != 2 || version.at(1).integer() > newestMinorVersion)
    version.fail("versions 2.0 to 2." + std::to_string(newestMinorVersion) + " are executed");
}

void checkExterns(const Node& section) {
  for (const Node& node : section.elements())
    node.fail("the extern " + quoted(node["name"].textOr("")) + " of type " +
              quoted(node["type"].textOr("")) + " is not executed");
}

void checkMetadata(const Program& program) {
  for (const char* field :
       {"ingress_port", "packet_length", "instance_type", "egress_spec", "egress_port"})
    if (!program.fieldNamed(std::string("standard_metadata.") + field))
      throw ProgramError("headers", std::string("there is no field standard_metadata.") + field +
                                        ": the program is not for v1model, and other architectures "
                                        "are not executed");
}

}  // namespace

std::optional<FieldRef> Program::fieldNamed(std::string_view dotted) const {
  if (const auto alias = aliases.find(dotted); alias != aliases.end()) return alias->second;
  const size_t dot = dotted.rfind('.');
  for (uint32_t header = 0; header < headers.size(); ++header) {
    if (headers[header].name != dotted.substr(0, dot)) continue;
    const std::vector<Field>& fields = typeOf(header).fields;
    for (uint32_t field = 0; field < fields.size(); ++field)
      if (fields[field].name == dotted.substr(dot + 1) && !fields[field].varbit)
        return FieldRef{header, field};
  }
  return std::nullopt;
}

Program readProgram(std::string_view json) {
  const Tree tree = parsed(json);
  const Node root(tree.get(), "");
  Names names;
  names.program.name = root["program"].textOr("");
  checkVersion(root["__meta__"]["version"]);
  readHeaderTypes(root["header_types"], names);
  readHeaders(root["headers"], names);
  readStacks(root["header_stacks"], names);
  readUnionTypes(root["header_union_types"], names);
  readUnions(root["header_unions"], names);
  readUnionStacks(root["header_union_stacks"], names);
  readAliases(root["field_aliases"], names);
  checkExterns(root["extern_instances"]);
  readValueSets(root["parse_vsets"], names);
  readErrors(root["errors"], names);
  readCalculations(root["calculations"], names);
  readCounters(root["counter_arrays"], names);
  readMeters(root["meter_arrays"], names);
  readRegisters(root["register_arrays"], names);
  readParsers(root["parsers"], names);
  readDeparsers(root["deparsers"], names);
  readActions(root["actions"], names);
  readPipelines(root["pipelines"], names);
  readChecksums(root["checksums"], names);
  readFieldLists(root["learn_lists"], names.program.learnLists, names);
  readFieldLists(root["field_lists"], names.program.fieldLists, names);
  checkMetadata(names.program);
  return std::move(names.program);
}

}  // namespace P4
