#include "p4/TraceText.h"

#include <algorithm>

#include "p4/match/KeyShape.h"
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

// The element's value among the words of a key.
std::string valueText(const KeyShape& shape, const KeyShape::Element& element,
                      const uint64_t* key) {
  std::vector<uint64_t> words(key + element.word, key + element.word + element.words);
  if (shape.kind == MatchKind::lpm && element.kind == MatchKind::lpm) {
    std::reverse(words.begin(), words.end());  // low word first, the bits still at the top
    const uint32_t shift = element.words * 64 - element.bits;
    for (size_t i = 0; shift && i < words.size(); ++i)
      words[i] = words[i] >> shift | (i + 1 < words.size() ? words[i + 1] << (64 - shift) : 0);
  }
  return hexOf(bytesOfWords(words.data(), element.bits));
}

bool isZero(const uint64_t* words, uint32_t count) {
  return std::all_of(words, words + count, [](uint64_t word) { return word == 0; });
}

std::string elementText(const KeyShape& shape, const KeyShape::Element& element,
                        const Entry& entry) {
  const auto text = [&](const uint64_t* words) { return valueText(shape, element, words); };
  if (shape.kind == MatchKind::lpm && element.kind == MatchKind::lpm)
    return text(entry.value()) + "/" + std::to_string(entry.prefixLength);
  if (element.kind == MatchKind::range && shape.kind == MatchKind::range)
    return text(entry.low()) + ".." + text(entry.high());
  if (shape.parts() == 1 || element.kind == MatchKind::exact || element.kind == MatchKind::valid)
    return text(entry.value());
  if (isZero(entry.mask() + element.word, element.words)) return "*";
  return text(entry.value()) + "&&&" + text(entry.mask());
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

std::string TraceText::keyText(uint32_t table, const uint64_t* key) const {
  const Table& info = program_.tables[table];
  const KeyShape shape = keyShapeOf(info);
  std::string text;
  for (size_t i = 0; i < info.key.size(); ++i)
    text += " " + info.key[i].name + "=" + valueText(shape, shape.elements[i], key);
  return text.empty() ? text : text + ":";
}

std::string TraceText::matchText(uint32_t table, const Entry& entry) const {
  const KeyShape shape = keyShapeOf(program_.tables[table]);
  std::string text;
  for (const KeyShape::Element& element : shape.elements)
    text += (text.empty() ? "" : " ") + elementText(shape, element, entry);
  return text;
}

void TraceText::onTable(uint32_t table, const uint64_t* key, const Entry* entry,
                        const ActionData* action) {
  std::string text = "table " + program_.tables[table].name + ":" + keyText(table, key);
  if (entry)
    text += " entry " + std::to_string(entry->handle) + " (" + matchText(table, *entry) + "),";
  else if (!program_.tables[table].key.empty())
    text += " no entry,";
  lines_.push_back(text + (action ? " action " + actionText(*action) : " no action"));
}

void TraceText::onLog(const std::string& message) { lines_.push_back("log: " + message); }

void TraceText::onEvent(const char* event, uint32_t number) {
  lines_.push_back(number == absent ? event : std::string(event) + " " + std::to_string(number));
}

}  // namespace P4
