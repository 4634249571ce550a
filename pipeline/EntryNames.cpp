#include "pipeline/EntryNames.h"

#include <algorithm>

#include "PI/frontends/proto/translation_tables.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/Finding.h"
#include "pipeline/ValueText.h"

namespace Pipeline {
namespace {

constexpr uint32_t firstNumber = 0x40000000;
constexpr uint32_t numbers = 0x40000000;
constexpr size_t lengthBytes = 2;

// A change of it would give all strings other numbers.
uint32_t hashOf(const std::string& name) {
  uint32_t hash = 2166136261;
  for (const char c : name) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619;
  return hash % numbers;
}

std::string bytesOf(uint32_t number, size_t bytes) {
  std::string text;
  for (size_t i = bytes; i > 0; --i) text += static_cast<char>(number >> (8 * (i - 1)));
  return text;
}

uint32_t numberOf(std::string_view bytes) {
  uint32_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

ConstantEntry entryOf(uint32_t table, uint32_t number, const std::string& name) {
  const pi::fe::proto::NameAction action =
      pi::fe::proto::name_action(static_cast<uint32_t>(name.size()));
  std::string params = bytesOf(static_cast<uint32_t>(name.size()), lengthBytes) + name;
  params.resize(lengthBytes + action.bytes);
  return {table, bytesOf(number, 4), 0, action.id, params};
}

}  // namespace

EntryNames::EntryNames(const p4::config::v1::P4Info& p4Info)
    : tables_(pi::fe::proto::translation_tables(p4Info)) {}

std::string EntryNames::bytes(const std::string& type, const std::string& name) {
  if (name.empty()) throw PipelineError("the string is empty");
  if (pi::fe::proto::name_action(static_cast<uint32_t>(name.size())).id == 0) {
    throw PipelineError("the string has " + std::to_string(name.size()) +
                        " bytes; 1000 is the"
                        " most");
  }
  auto& ofType = numbers_[type];
  if (const auto found = ofType.find(name); found != ofType.end()) return bytesOf(found->second, 4);
  uint32_t hash = hashOf(name);
  const auto isTaken = [&] {
    return std::ranges::any_of(ofType,
                               [&](const auto& one) { return one.second == firstNumber + hash; });
  };
  while (isTaken()) hash = (hash + 1) % numbers;
  ofType[name] = firstNumber + hash;
  return bytesOf(firstNumber + hash, 4);
}

std::vector<ConstantEntry> EntryNames::entries() const {
  std::vector<ConstantEntry> entries;
  for (const auto& [type, ofType] : numbers_) {
    for (const auto& [name, number] : ofType) {
      entries.push_back(entryOf(tables_.at(type), number, name));
    }
  }
  return entries;
}

bool holdsNames(uint32_t tableId) { return pi::fe::proto::is_translation_table(tableId); }

NamesByNumber namesIn(const DeviceConfig& config, const p4::config::v1::P4Info& p4Info) {
  NamesByNumber names;
  for (const auto& [type, id] : pi::fe::proto::translation_tables(p4Info)) {
    for (const DeviceTable& table : config.tables) {
      if (table.kind != TableKind::match || table.id != id) continue;
      for (const DeviceEntry& entry : table.entries) {
        try {
          const std::string params = bytesOfHex(entry.actionParams);
          const uint32_t length = numberOf(params.substr(0, lengthBytes));
          names[type][numberOf(bytesOfHex(entry.key))] = params.substr(lengthBytes, length);
        } catch (const std::exception&) {  // told of by the check
        }
      }
    }
  }
  return names;
}

}  // namespace Pipeline
