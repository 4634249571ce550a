// Constant entries: from the text that people write to the bytes that the agent programs at start.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace p4::config::v1 {
class Action;
class Table;
}  // namespace p4::config::v1

namespace Pipeline {

struct PipelineLayout;

// As the agent takes it: the key's slots and the action's fields one after another, each in
// (bits + 7) / 8 big-endian bytes; a prefix length in 4 bytes of host order; behind the value of an
// optional field a byte that tells whether it is present.
struct ConstantEntry {
  uint32_t tableId = 0;
  std::string key;
  uint32_t priority = 0;
  uint32_t actionId = 0;
  std::string actionParams;
  bool isInitial = false;  // controllers may change and delete it
};

// One match field of an entry; values are (bits + 7) / 8 bytes.
struct MatchValue {
  enum class Form : uint8_t { exact, ternary, lpm, range };
  Form form = Form::exact;
  std::string value;
  std::string maskOrHigh;     // of a ternary, of a range
  uint32_t prefixLength = 0;  // of an LPM
};

// An entry as read, by position of the table's match fields and the action's parameters.
struct EntryDraft {
  const p4::config::v1::Table* table = nullptr;
  const p4::config::v1::Action* action = nullptr;
  uint32_t priority = 0;
  std::vector<std::optional<MatchValue>> match;  // nothing: don't care
  std::vector<std::optional<std::string>> params;
};

// Throws PipelineError when the table's entries name members, groups or action sets of an action
// profile: a constant entry holds an action.
void checkTakesActions(const p4::config::v1::Table& table);

// From the text of one value: "7", "10.0.0.0/8", "0x0800&&&0xffff", "1..7". Throws PipelineError.
MatchValue matchValue(const std::string& text, uint32_t bits);

// Throws PipelineError when the entry does not fit the table, its action or the agent.
ConstantEntry encodeEntry(const EntryDraft& draft, const PipelineLayout& layout);

}  // namespace Pipeline
