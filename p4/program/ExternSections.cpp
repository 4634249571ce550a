// Counters, meters, registers, calculations and checksums.
#include <array>

#include "p4/program/ExpressionReader.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

constexpr uint32_t maxCells = 1u << 26;

uint32_t readSize(const Node& node) {
  const uint32_t size = node.integer();
  if (size > maxCells)
    node.fail("arrays of more than " + std::to_string(maxCells) + " cells are not executed");
  return size;
}

struct AlgorithmName {
  const char* name;
  Algorithm algorithm;
};

constexpr std::array algorithms = {
    AlgorithmName{"crc16", Algorithm::crc16},
    AlgorithmName{"crc16_custom", Algorithm::crc16},
    AlgorithmName{"crc32", Algorithm::crc32},
    AlgorithmName{"crc32_custom", Algorithm::crc32},
    AlgorithmName{"crcCCITT", Algorithm::crcCcitt},
    AlgorithmName{"crc8_custom", Algorithm::crc8},
    AlgorithmName{"crc64_custom", Algorithm::crc64},
    AlgorithmName{"csum16", Algorithm::csum16},
    AlgorithmName{"cksum16", Algorithm::csum16},
    AlgorithmName{"xor16", Algorithm::xor16},
    AlgorithmName{"xor32", Algorithm::xor32},
    AlgorithmName{"identity", Algorithm::identity},
    AlgorithmName{"round_robin", Algorithm::roundRobin},
    AlgorithmName{"round_robin_consistent", Algorithm::roundRobinConsistent},
    AlgorithmName{"toeplitz", Algorithm::toeplitz},
    AlgorithmName{"xxh64", Algorithm::xxh64},
    AlgorithmName{"bmv2_hash", Algorithm::xxh64},
    AlgorithmName{"hash_ex", Algorithm::hashEx},
};

Algorithm readAlgorithm(const Node& node) {
  const std::string name = node.text();
  for (const AlgorithmName& known : algorithms)
    if (name == known.name) return known.algorithm;
  node.fail("the hash algorithm " + quoted(name) + " is not executed");
}

CalculationInput readInput(const Node& node, const Names& names) {
  const std::string type = node["type"].text();
  CalculationInput input;
  if (type == "field") {
    input.field = names.field(node["value"]);
  } else if (type == "hexstr") {
    input.kind = CalculationInput::Kind::constant;
    input.bits = node["bitwidth"].integer();
    if (input.bits > 8 * 65536) node["bitwidth"].fail("the constant is too wide");
    input.bytes = node["value"].bytes((input.bits + 7) / 8);
  } else if (type == "header") {
    input.kind = CalculationInput::Kind::header;
    input.field.header = names.headers.find(node["value"]);
  } else if (type == "payload") {
    input.kind = CalculationInput::Kind::payload;
  } else {
    node["type"].fail(quoted(type) + " is no input of a calculation");
  }
  return input;
}

// The old IPv4 checksum: the target's header without the target.
Calculation ipv4Checksum(const FieldRef& target, const Names& names) {
  Calculation calculation{.name = "ipv4", .algorithm = Algorithm::csum16};
  const auto fields = static_cast<uint32_t>(names.program.typeOf(target.header).fields.size());
  for (uint32_t field = 0; field < fields; ++field)
    if (field != target.field) calculation.inputs.push_back({.field = {target.header, field}});
  return calculation;
}

}  // namespace

void readCounters(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    names.counters.add(node, node["name"].name(),
                       static_cast<uint32_t>(names.program.counters.size()));
    CounterArrayInfo counters{.name = node["name"].text(),
                              .direct = node["is_direct"].booleanOr(false)};
    if (!counters.direct) counters.size = readSize(node["size"]);
    names.program.counters.push_back(std::move(counters));
  }
}

void readMeters(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    names.meters.add(node, node["name"].name(), static_cast<uint32_t>(names.program.meters.size()));
    MeterArrayInfo meters{.name = node["name"].text(),
                          .direct = node["is_direct"].booleanOr(false)};
    const std::string type = node["type"].text();
    if (type != "packets" && type != "bytes")
      node["type"].fail("\"packets\" or \"bytes\" is wanted here");
    meters.bytes = type == "bytes";
    if (node["rate_count"].integerOr(2) != 2)
      node["rate_count"].fail("meters of two rates are executed, and no others");
    if (meters.direct)
      meters.result = names.numberField(node["result_target"]);
    else
      meters.size = readSize(node["size"]);
    names.program.meters.push_back(std::move(meters));
  }
}

void readRegisters(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    names.registers.add(node, node["name"].name(),
                        static_cast<uint32_t>(names.program.registers.size()));
    const RegisterArrayInfo cells{node["name"].text(), readSize(node["size"]),
                                  node["bitwidth"].integer()};
    if (cells.bits == 0 || cells.bits > maxNumberBits / 2)
      node["bitwidth"].fail("registers of that width are not executed");
    names.program.registers.push_back(cells);
  }
}

Calculation readCalculation(const Node& node, const char* algorithmKey, const Names& names) {
  Calculation calculation{.name = node["name"].textOr("selector"),
                          .algorithm = readAlgorithm(node[algorithmKey])};
  for (const Node& input : node["input"].elements())
    calculation.inputs.push_back(readInput(input, names));
  return calculation;
}

void readCalculations(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    names.calculations.add(node, node["name"].name(),
                           static_cast<uint32_t>(names.program.calculations.size()));
    names.program.calculations.push_back(readCalculation(node, "algo", names));
  }
}

void readChecksums(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    Checksum checksum{.name = node["name"].textOr(""), .target = names.numberField(node["target"])};
    const std::string type = node["type"].textOr("generic");
    if (type == "ipv4")
      checksum.calculation = ipv4Checksum(checksum.target, names);
    else if (type == "generic")
      checksum.calculation =
          names.program.calculations[names.calculations.find(node["calculation"])];
    else
      node["type"].fail("checksums of type " + quoted(type) + " are not executed");
    checksum.verify = node["verify"].booleanOr(true);
    checksum.update = node["update"].booleanOr(true);
    checksum.condition = ExpressionReader(names).readCondition(node["if_cond"]);
    names.program.checksums.push_back(std::move(checksum));
  }
}

}  // namespace P4
