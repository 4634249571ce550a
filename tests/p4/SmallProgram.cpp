#include "tests/p4/SmallProgram.h"

namespace P4Test {
namespace {

std::string joined(const std::vector<std::string>& parts) {
  std::string all;
  for (const std::string& part : parts) all += (all.empty() ? "" : ",") + part;
  return all;
}

std::string quotedList(const std::vector<std::string>& names) {
  std::vector<std::string> quoted;
  for (const std::string& name : names) quoted.push_back("\"" + name + "\"");
  return "[" + joined(quoted) + "]";
}

const char* const standardMetadata =
    R"({"name":"standard_metadata_t","id":0,"fields":[["ingress_port",9],["egress_spec",9],["egress_port",9],
    ["instance_type",32],["packet_length",32],["enq_timestamp",32],["enq_qdepth",19],["deq_timedelta",32],
    ["deq_qdepth",19],["ingress_global_timestamp",48],["egress_global_timestamp",48],["mcast_grp",16],
    ["egress_rid",16],["checksum_error",1],["parser_error",32],["priority",3],["_padding",3]],
    "length_exp":null,"max_length":null})";
const char* const aliases =
    R"([["queueing_metadata.enq_timestamp",["standard_metadata","enq_timestamp"]],
    ["intrinsic_metadata.ingress_global_timestamp",["standard_metadata","ingress_global_timestamp"]],
    ["intrinsic_metadata.mcast_grp",["standard_metadata","mcast_grp"]],
    ["intrinsic_metadata.egress_rid",["standard_metadata","egress_rid"]],
    ["intrinsic_metadata.priority",["standard_metadata","priority"]]])";

std::string keyless(const std::string& name, size_t action, const std::string& actionName,
                    const std::string& next) {
  const std::string node = next.empty() ? "null" : "\"" + next + "\"";
  return R"({"name":")" + name + R"(","id":)" + std::to_string(900 + action) +
         R"(,"match_type":"exact","type":"simple","max_size":16,"key":[],"action_ids":[)" +
         std::to_string(action) + R"(],"actions":[")" + actionName + R"("],"base_default_next":)" +
         node + R"(,"next_tables":{")" + actionName + "\":" + node +
         R"(},"default_entry":{"action_id":)" + std::to_string(action) +
         R"(,"action_const":true,"action_data":[],"action_entry_const":true}})";
}

}  // namespace

std::string call(const std::string& op, const std::vector<std::string>& parameters) {
  return R"({"op":")" + op + R"(","parameters":[)" + joined(parameters) + "]}";
}

std::string field(const std::string& header, const std::string& name) {
  return R"({"type":"field","value":[")" + header + R"(",")" + name + R"("]})";
}

std::string hex(uint64_t value) {
  P4::Number number;
  mpz_set_ui(number.get_mpz_t(), value);
  return R"({"type":"hexstr","value":"0x)" + number.get_str(16) + "\"}";
}

std::string object(const std::string& type, const std::string& name) {
  return R"({"type":")" + type + R"(","value":")" + name + "\"}";
}

void SmallProgram::addType(const std::string& name, const std::vector<TestField>& fields) {
  std::vector<std::string> parts;
  for (const TestField& one : fields)
    parts.push_back("[\"" + one.name + "\"," + (one.bits ? std::to_string(one.bits) : "\"*\"") +
                    (one.isSigned ? ",true]" : "]"));
  types_.push_back(R"({"name":")" + name + R"(","id":)" + std::to_string(types_.size() + 1) +
                   R"(,"fields":[)" + joined(parts) + R"(],"length_exp":null,"max_length":null})");
}

void SmallProgram::addHeader(const std::string& name, const std::string& type, bool metadata) {
  headers_.push_back(R"({"name":")" + name + R"(","id":)" + std::to_string(headers_.size() + 1) +
                     R"(,"header_type":")" + type + R"(","metadata":)" +
                     (metadata ? "true}" : "false}"));
}

void SmallProgram::header(const std::string& name, const std::vector<TestField>& fields,
                          bool metadata) {
  addType(name + "_t", fields);
  addHeader(name, name + "_t", metadata);
}

void SmallProgram::another(const std::string& name, const std::string& like) {
  addHeader(name, like + "_t", false);
}

void SmallProgram::stack(const std::string& name, const std::vector<TestField>& fields,
                         size_t size) {
  addType(name + "_t", fields);
  std::vector<std::string> ids;
  for (size_t i = 0; i < size; ++i) {
    addHeader(name + "[" + std::to_string(i) + "]", name + "_t", false);
    ids.push_back(std::to_string(headers_.size()));
  }
  stacks_.push_back(R"({"name":")" + name + R"(","id":)" + std::to_string(stacks_.size()) +
                    R"(,"header_type":")" + name + R"(_t","size":)" + std::to_string(size) +
                    R"(,"header_ids":[)" + joined(ids) + "]}");
}

void SmallProgram::state(const std::string& name, const std::string& ops, const std::string& key,
                         const std::string& transitions) {
  states_.push_back(R"({"name":")" + name + R"(","id":)" + std::to_string(states_.size()) +
                    R"(,"parser_ops":)" + ops + R"(,"transition_key":)" + key +
                    R"(,"transitions":)" + transitions + "}");
}

size_t SmallProgram::action(const std::string& name, const std::string& parameters,
                            const std::string& calls) {
  const size_t id = actions_.size();
  actions_.push_back(R"({"name":")" + name + R"(","id":)" + std::to_string(id) +
                     R"(,"runtime_data":[)" + parameters + R"(],"primitives":[)" + calls + "]}");
  return id;
}

void SmallProgram::ingressAction(const std::string& calls, const std::string& next) {
  const size_t id = action("in", "", calls);
  first_ = "tbl_in";
  tables_.push_back(keyless(first_, id, "in", next));
}

void SmallProgram::egressAction(const std::string& calls) {
  const size_t id = action("eg", "", calls);
  egressFirst_ = "tbl_eg";
  egressTables_.push_back(keyless(egressFirst_, id, "eg", ""));
}

std::string SmallProgram::json() const {
  const auto node = [](const std::string& name) {
    return name.empty() ? "null" : "\"" + name + "\"";
  };
  const auto part = [this](const std::string& name, const std::string& otherwise) {
    const auto found = sections_.find(name);
    return ",\"" + name + "\":" + (found == sections_.end() ? otherwise : found->second);
  };
  std::string text = R"({"header_types":[)" + std::string(standardMetadata);
  for (const std::string& type : types_) text += "," + type;
  text +=
      R"(],"headers":[{"name":"standard_metadata","id":0,"header_type":"standard_metadata_t","metadata":true})";
  for (const std::string& header : headers_) text += "," + header;
  text += R"(],"header_stacks":[)" + joined(stacks_) + "]";
  for (const char* name :
       {"header_union_types", "header_unions", "header_union_stacks", "parse_vsets", "errors",
        "calculations", "counter_arrays", "meter_arrays", "register_arrays", "checksums",
        "learn_lists", "field_lists"})
    text += part(name, "[]");
  text += R"(,"field_aliases":)" + std::string(aliases);
  text += R"(,"parsers":[{"name":"parser","id":0,"init_state":"start","parse_states":[)" +
          joined(states_) + "]}]";
  text += R"(,"deparsers":[{"name":"deparser","id":0,"order":)" + quotedList(order_) + "}]";
  text += R"(,"actions":[)" + joined(actions_) + "]";
  text += R"(,"pipelines":[{"name":"ingress","id":0,"init_table":)" + node(first_) +
          R"(,"tables":[)" + joined(tables_) + "]" + part("action_profiles", "[]") +
          part("conditionals", "[]") + "}";
  text += R"(,{"name":"egress","id":1,"init_table":)" + node(egressFirst_) + R"(,"tables":[)" +
          joined(egressTables_) + R"(],"action_profiles":[],"conditionals":[]}])";
  return text + "}";
}

}  // namespace P4Test
