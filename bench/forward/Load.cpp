#include "bench/forward/Load.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "tests/p4/Playing.h"
#include "tests/p4/VectorFile.h"

namespace Bench {
namespace {

constexpr uint32_t routes = 1000;
constexpr uint32_t neighbors = 16;
constexpr uint32_t aclTables = 10;
constexpr uint32_t aclEntries = 1000;
constexpr uint32_t flows = 1024;

std::string big(uint64_t number, size_t bytes) {
  std::string text(bytes, '\0');
  for (; bytes > 0; number >>= 8) text[--bytes] = static_cast<char>(number);
  return text;
}

// Ethernet, IPv4 with its checksum, UDP.
std::string udpFrame(uint32_t source, uint32_t destination, uint16_t sourcePort,
                     uint16_t destinationPort) {
  std::string ip = big(0x45, 1) + big(0, 1) + big(28, 2) + big(0, 4) + big(64, 1) + big(17, 1) +
                   big(0, 2) + big(source, 4) + big(destination, 4);
  uint32_t sum = 0;
  for (size_t i = 0; i < ip.size(); i += 2) {
    sum +=
        static_cast<uint32_t>(static_cast<uint8_t>(ip[i]) << 8 | static_cast<uint8_t>(ip[i + 1]));
  }
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  ip.replace(10, 2, big(~sum, 2));
  return big(0x020000000001, 6) + big(0x020000000002, 6) + big(0x0800, 2) + ip +
         big(sourcePort, 2) + big(destinationPort, 2) + big(8, 2) + big(0, 2);
}

uint32_t known(const std::optional<uint32_t>& position, const std::string& name) {
  if (!position) throw std::runtime_error("the program has no " + name);
  return *position;
}

// Tables and actions of a program by the ends of their names.
class Names {
 public:
  explicit Names(P4::Engine& engine) : engine_(engine) {}

  uint32_t table(const std::string& name) const {
    const auto& tables = engine_.program().tables;
    for (uint32_t i = 0; i < tables.size(); ++i) {
      if (tables[i].name == name || tables[i].name.ends_with("." + name)) return i;
    }
    return known(std::nullopt, name);
  }
  P4::ActionSpec action(uint32_t table, const std::string& name,
                        const std::vector<std::string>& arguments) const {
    for (const uint32_t action : engine_.program().tables[table].actions) {
      const std::string& full = engine_.program().actions[action].name;
      if (full == name || full.ends_with("." + name)) return {action, arguments};
    }
    return {known(std::nullopt, name), {}};
  }
  void insert(const std::string& table, const std::vector<P4::MatchElement>& match,
              const std::string& action, const std::vector<std::string>& arguments) const {
    const uint32_t position = this->table(table);
    engine_.tables().insert({.table = position, .match = match},
                            this->action(position, action, arguments));
  }

 private:
  P4::Engine& engine_;
};

// Keeps the frames that leave as one by the port by which most do.
void keepForwarded(Load& load) {
  std::map<uint32_t, std::vector<std::string>> byPort;
  P4::Outputs outputs;
  for (const std::string& frame : load.frames) {
    outputs.clear();
    load.engine->process(load.port, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()},
                         1, outputs);
    if (outputs.size() == 1) byPort[outputs.frame(0).port].push_back(frame);
  }
  load.frames.clear();
  for (auto& [port, frames] : byPort) {
    if (port == load.port || frames.size() <= load.frames.size()) continue;
    load.outPort = port;
    load.frames = frames;
  }
}

void mustForward(const Load& load) {
  if (load.frames.empty()) throw std::runtime_error(load.name + " forwards none of its frames");
}

std::string aclTable(uint32_t number, size_t permit, size_t deny) {
  using namespace P4Test;
  std::string key;
  for (const char* target : {"\"ipv4\",\"src\"", "\"ipv4\",\"dst\"", "\"ipv4\",\"protocol\"",
                             "\"udp\",\"src\"", "\"udp\",\"dst\""}) {
    key += std::string(key.empty() ? "" : ",") + R"({"match_type":"ternary","target":[)" + target +
           R"(],"mask":null})";
  }
  const std::string name = "acl" + std::to_string(number);
  const std::string next =
      number + 1 < aclTables ? "\"acl" + std::to_string(number + 1) + "\"" : "null";
  return R"({"name":")" + name + R"(","id":)" + std::to_string(number + 1) +
         R"(,"match_type":"ternary","type":"simple","max_size":100000,"with_counters":true,"key":[)" +
         key + R"(],"action_ids":[)" + std::to_string(permit) + "," + std::to_string(deny) +
         R"(],"actions":["permit","deny"],"base_default_next":)" + next +
         R"(,"next_tables":{"permit":)" + next + R"(,"deny":null},"default_entry":{"action_id":)" +
         std::to_string(permit) + R"(,"action_const":false,"action_data":[]}})";
}

std::string aclProgram() {
  using namespace P4Test;
  SmallProgram program;
  program.header("ethernet", {{"dst", 48}, {"src", 48}, {"type", 16}});
  program.header("ipv4", {{"version", 4},
                          {"ihl", 4},
                          {"tos", 8},
                          {"length", 16},
                          {"id", 32},
                          {"ttl", 8},
                          {"protocol", 8},
                          {"checksum", 16},
                          {"src", 32},
                          {"dst", 32}});
  program.header("udp", {{"src", 16}, {"dst", 16}, {"length", 16}, {"checksum", 16}});
  program.state("start", list({extract("ethernet"), extract("ipv4"), extract("udp")}));
  program.ingressAction(assign(metadata("egress_spec"), hex(2)), "acl0");
  const size_t permit = program.action("permit", "", "");
  const size_t deny = program.action("deny", "", assign(metadata("egress_spec"), hex(511)));
  for (uint32_t i = 0; i < aclTables; ++i) program.table(aclTable(i, permit, deny));
  program.deparse({"ethernet", "ipv4", "udp"});
  return program.json();
}

// Hosts, networks and services, each with one of a few masks, as people write such lists.
std::vector<P4::MatchElement> aclMatch(uint32_t number) {
  const uint32_t spread = number * 2654435761u;
  std::vector<P4::MatchElement> match(5);
  match[0] = {big(spread, 4), big(0xffffffffu << (number % 3) * 8, 4)};
  if (number % 2) match[1] = {big(~spread, 4), big(0xffffff00u, 4)};
  match[2] = {big(17, 1), big(0xff, 1)};
  if (number % 4 == 0) match[4] = {big(spread % 1024, 2), big(0xffff, 2)};
  for (P4::MatchElement& element : match) {
    for (size_t i = 0; i < element.value.size(); ++i) {
      element.value[i] = static_cast<char>(element.value[i] & element.mask[i]);
    }
  }
  return match;
}

}  // namespace

std::vector<std::string> Load::framesOf(size_t bytes) const {
  std::vector<std::string> padded;
  for (const std::string& frame : frames) {
    if (frame.size() <= bytes) padded.push_back(frame + std::string(bytes - frame.size(), '\0'));
  }
  return padded;
}

Load routerLoad(const std::string& program) {
  Load load{.name = "router",
            .engine = std::make_shared<P4::Engine>(P4Test::fileText(program)),
            .frames = {}};
  const Names names(*load.engine);
  names.insert("port", {{big(load.port, 2)}}, "set_vrf", {big(1, 2)});
  for (uint32_t i = 0; i < neighbors; ++i) {
    names.insert("nexthop", {{big(i, 4)}}, "forward",
                 {big(load.outPort, 2), big(0x020000001000, 6), big(i, 4)});
    names.insert("neighbor", {{big(load.outPort, 2)}, {big(i, 4)}}, "set_dst_mac",
                 {big(0x020000000100 + i, 6)});
  }
  for (uint32_t i = 0; i < routes; ++i) {
    names.insert("ipv4_route", {{big(1, 2)}, {big(0x0a000000 + (i << 8), 4), "", 24}},
                 "set_nexthop", {big(i % neighbors, 4)});
  }
  load.engine->tables().commit();
  for (uint32_t i = 0; i < flows; ++i) {
    const uint32_t route = i * 7919 % routes;
    load.frames.push_back(udpFrame(0xc0a80001 + i, 0x0a000000 + (route << 8) + i % 200 + 1,
                                   static_cast<uint16_t>(1024 + i), 53));
  }
  keepForwarded(load);
  mustForward(load);
  return load;
}

Load aclLoad() {
  Load load{
      .name = "10 ACL tables", .engine = std::make_shared<P4::Engine>(aclProgram()), .frames = {}};
  const Names names(*load.engine);
  for (uint32_t table = 0; table < aclTables; ++table) {
    const uint32_t position = names.table("acl" + std::to_string(table));
    for (uint32_t i = 0; i < aclEntries; ++i) {
      const uint32_t number = table * aclEntries + i;
      load.engine->tables().insert(
          {.table = position, .match = aclMatch(number), .priority = 1 + i},
          names.action(position, number % 7 ? "permit" : "deny", {}));
    }
  }
  load.engine->tables().commit();
  for (uint32_t i = 0; i < flows; ++i) {
    const uint32_t spread = i * 10 * 2654435761u;  // the source of an entry
    load.frames.push_back(
        udpFrame(spread, ~spread, static_cast<uint16_t>(1024 + i), static_cast<uint16_t>(i)));
  }
  keepForwarded(load);
  mustForward(load);
  return load;
}

std::optional<Load> recordedLoad(const std::string& programs, const std::string& vectors,
                                 const std::string& name) {
  if (!std::filesystem::exists(vectors + "/" + name + ".jsonl")) return std::nullopt;
  const auto file = std::make_shared<P4Test::VectorFile>(vectors, programs, name);
  std::map<uint32_t, std::vector<std::string>> byPort;
  for (P4Test::Json line = file->next(); line; line = file->next()) {
    const std::string kind = line->child->string;
    if (kind == "write") file->write(*line->child);
    if (kind != "packet") continue;
    byPort[P4Test::numberOf(line->child, "port")].push_back(
        P4Test::bytesOf(P4Test::stringOf(line->child, "hex")));
  }
  Load best;
  for (const auto& [port, frames] : byPort) {
    if (port == file->cpuPort()) continue;
    Load load{.name = name, .engine = {file, &file->engine()}, .port = port, .frames = frames};
    keepForwarded(load);
    if (load.outPort == file->cpuPort()) continue;
    if (load.frames.size() > best.frames.size()) best = load;
  }
  if (best.frames.empty()) return std::nullopt;
  return best;
}

std::string largestRecorded(const std::string& programs, const std::string& vectors) {
  std::error_code none;
  std::string largest;
  uintmax_t most = 0;
  for (const auto& file : std::filesystem::directory_iterator(vectors, none)) {
    if (file.path().extension() != ".jsonl") continue;
    const std::string name = file.path().stem();
    const auto size =
        std::filesystem::file_size(fmt::format("{}/json/{}.json", programs, name), none);
    if (none || size <= most) continue;
    most = size;
    largest = name;
  }
  return largest;
}

TableWriter::TableWriter(P4::Engine& engine) : engine_(engine) {
  const P4::Program& program = engine_.program();
  for (uint32_t i = 0; i < program.tables.size() && !able_; ++i) {
    const P4::Table& table = program.tables[i];
    const bool wide =
        std::ranges::any_of(table.key, [](const auto& one) { return one.bits >= 32; });
    if (table.type != P4::TableKind::simple || table.immutable || !wide) continue;
    table_ = i;
    action_ = {.action = table.actions.front(), .arguments = {}};
    const size_t arguments = program.actions[action_.action].parameters.size();
    action_.arguments.assign(arguments, std::string(1, '\1'));
    able_ = true;
  }
}

// Addresses from a range that frames do not use.
P4::EntryKey TableWriter::key(uint32_t number) const {
  const P4::Table& table = engine_.program().tables[table_];
  P4::EntryKey key{.table = table_, .match = {}, .priority = 1};
  if (table.kind != P4::MatchKind::ternary && table.kind != P4::MatchKind::range) key.priority = 0;
  for (const P4::KeyElement& element : table.key) {
    const size_t bytes = (element.bits + 7) / 8;
    P4::MatchElement match{.value = std::string(bytes, '\0')};
    if (element.bits >= 32)
      match.value = std::string(bytes - 4, '\0') + big(0xee000000 + number, 4);
    if (element.kind == P4::MatchKind::lpm) match.prefixLength = element.bits;
    if (element.kind == P4::MatchKind::ternary) {
      if (element.bits >= 32)
        match.mask = std::string(bytes - 4, '\0') + big(0xffffffff, 4);
      else
        match.value.clear();
    }
    if (element.kind == P4::MatchKind::range) match.mask = match.value;
    key.match.push_back(match);
  }
  return key;
}

void TableWriter::write() {
  constexpr uint32_t kept = 500;
  if (next_ - first_ < kept) {
    engine_.tables().insert(key(next_++), action_);
  } else {
    engine_.tables().remove(key(first_++));
  }
}

void TableWriter::removeAll() {
  while (first_ < next_) engine_.tables().remove(key(first_++));
  commit();
}

}  // namespace Bench
