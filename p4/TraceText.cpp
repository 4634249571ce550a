#include "p4/TraceText.h"

#include "p4/tables/Encoding.h"

namespace P4 {
namespace {

std::string hexOf(const std::string& bytes) {
  std::string hex = "0x";
  for (const char byte : bytes) {
    hex += "0123456789abcdef"[static_cast<uint8_t>(byte) >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  return hex;
}

}  // namespace

std::string TraceText::text() const {
  std::string all;
  for (const std::string& line : lines_) all += line + "\n";
  return all;
}

void TraceText::onParserState(uint32_t state) {
  lines_.push_back("parser state " + program_.states[state].name);
}

void TraceText::onParserError(uint32_t error) {
  std::string name = std::to_string(error);
  for (const auto& [text, value] : program_.errors)
    if (value == error) name = text;
  lines_.push_back("parser error " + name);
}

std::string TraceText::actionText(const ActionData& data) const {
  const Action& action = program_.actions[data.action];
  std::string text = action.name + "(";
  const uint64_t* words = data.arguments;
  for (size_t i = 0; i < action.parameters.size(); ++i) {
    if (i) text += ", ";
    text += action.parameters[i].name + "=" + hexOf(bytesOfWords(words, action.parameters[i].bits));
    words += (action.parameters[i].bits + 63) / 64;
  }
  return text + ")";
}

void TraceText::onTable(uint32_t table, const Entry* entry, const ActionData* action) {
  const std::string what = entry ? "entry " + std::to_string(entry->handle) : "no entry";
  lines_.push_back("table " + program_.tables[table].name + ": " + what + ", " +
                   (action ? "action " + actionText(*action) : "no action"));
}

void TraceText::onLog(const std::string& message) { lines_.push_back("log: " + message); }

void TraceText::onEvent(const char* event, uint32_t number) {
  lines_.push_back(std::string(event) + " " + std::to_string(number));
}

}  // namespace P4
