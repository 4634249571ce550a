#include "p4/tables/Encoding.h"

#include <algorithm>

#include "p4/tables/Refusal.h"

namespace P4 {
namespace {

void fillOnes(uint64_t* words, uint32_t bits) {
  for (uint32_t word = 0; word < (bits + 63) / 64; ++word)
    words[word] = bits - 64 * word >= 64 ? ~uint64_t{0} : (uint64_t{1} << (bits - 64 * word)) - 1;
}

// An LPM element: the highest word first, the bits at the top, those behind the prefix 0.
void turnPrefix(uint64_t* words, const KeyShape::Element& element, uint32_t length) {
  std::reverse(words, words + element.words);
  const uint32_t shift = element.words * 64 - element.bits;
  for (uint32_t i = 0; shift && i < element.words; ++i)
    words[i] = words[i] << shift | (i + 1 < element.words ? words[i + 1] >> (64 - shift) : 0);
  for (uint32_t i = 0; i < element.words; ++i) {
    if (length >= 64 * (i + 1)) continue;
    words[i] &= length <= 64 * i ? 0 : ~uint64_t{0} << (64 * (i + 1) - length);
  }
}

// The bits above the highest one in which low and high differ.
void commonMask(const uint64_t* low, const uint64_t* high, uint32_t bits, uint64_t* mask) {
  fillOnes(mask, bits);
  for (uint32_t word = (bits + 63) / 64; word-- > 0;) {
    const uint64_t differ = low[word] ^ high[word];
    if (!differ) continue;
    const int lead = __builtin_clzll(differ);
    mask[word] &= lead ? ~uint64_t{0} << (64 - lead) : 0;
    for (uint32_t lower = 0; lower < word; ++lower) mask[lower] = 0;
    return;
  }
}

class KeyEncoder {
 public:
  KeyEncoder(const Table& table, const KeyShape& shape) : table_(table), shape_(shape) {}

  Entry::Ptr encode(const std::vector<MatchElement>& match, Spares<Entry>* spares) {
    if (table_.key.empty())
      throw Refusal(RefusalKind::invalid,
                    "table " + table_.name + " has no key and takes no entries");
    if (match.size() != table_.key.size())
      throw Refusal(RefusalKind::invalid, "table " + table_.name + " has " +
                                              std::to_string(table_.key.size()) + " match fields");
    Entry::Ptr entry = Entry::make(shape_.words, shape_.parts(),
                                   spares ? spares->take(spareSize(shape_)) : nullptr);
    for (position_ = 0; position_ < match.size(); ++position_)
      encodeElement(match[position_], *entry);
    return entry;
  }

 private:
  const KeyShape::Element& element() const { return shape_.elements[position_]; }

  [[noreturn]] void refuse(const std::string& why) const {
    throw Refusal(RefusalKind::invalid, "table " + table_.name + ", match field " +
                                            table_.key[position_].name + ": " + why);
  }

  void words(const std::string& bytes, uint64_t* to) const {
    if (!wordsOfBytes(bytes, element().bits, to))
      refuse("the value does not fit " + std::to_string(element().bits) + " bits");
  }

  void encodeElement(const MatchElement& match, Entry& entry) {
    const uint32_t at = element().word;
    const bool anything = match.value.empty() && match.mask.empty();
    uint64_t* value = entry.value() + at;
    words(match.value, value);
    switch (element().kind) {
      case MatchKind::exact:
      case MatchKind::valid:
        if (anything) refuse("an exact match field needs a value");
        break;
      case MatchKind::lpm:
        if (match.prefixLength > element().bits) refuse("the prefix is longer than the field");
        break;
      default:
        break;
    }
    maskValue(value);
    if (shape_.kind == MatchKind::lpm && element().kind == MatchKind::lpm)
      return turnPrefix(value, element(), match.prefixLength);
    if (shape_.parts() > 1) encodeMask(match, anything, entry);
  }

  // With the key's own mask.
  void maskValue(uint64_t* words) const {
    const std::string& mask = table_.key[position_].mask;
    if (mask.empty()) return;
    const Number number = numberOfBytes(mask);
    for (uint32_t i = 0; i < element().words; ++i) words[i] &= wordOf(number, i);
  }

  void encodeMask(const MatchElement& match, bool anything, Entry& entry) const {
    const uint32_t at = element().word;
    uint64_t* value = entry.value() + at;
    uint64_t* mask = entry.mask() + at;
    switch (element().kind) {
      case MatchKind::ternary:
        words(match.mask, mask);
        break;
      case MatchKind::range:
        encodeRange(match, anything, entry);
        break;
      case MatchKind::lpm: {
        fillOnes(mask, element().bits);
        const uint32_t rest = element().bits - match.prefixLength;
        for (uint32_t word = 0; word < element().words; ++word) {
          if (rest <= 64 * word) break;
          mask[word] &= rest >= 64 * (word + 1) ? 0 : ~uint64_t{0} << (rest - 64 * word);
        }
        break;
      }
      default:
        fillOnes(mask, element().bits);
    }
    maskValue(mask);
    for (uint32_t i = 0; i < element().words; ++i) value[i] &= mask[i];
  }

  void encodeRange(const MatchElement& match, bool anything, Entry& entry) const {
    const uint32_t at = element().word;
    uint64_t* low = entry.low() + at;
    uint64_t* high = entry.high() + at;
    words(match.value, low);
    if (anything)
      fillOnes(high, element().bits);
    else
      words(match.mask, high);
    maskValue(low);
    maskValue(high);
    for (uint32_t word = element().words; word-- > 0 && low[word] >= high[word];)
      if (low[word] > high[word]) refuse("the range ends before it begins");
    commonMask(low, high, element().bits, entry.mask() + at);
  }

  const Table& table_;
  const KeyShape& shape_;
  size_t position_ = 0;
};

uint64_t wordOfBytes(std::string_view bytes) {
  uint64_t word = 0;
  for (const char byte : bytes) word = word << 8 | static_cast<uint8_t>(byte);
  return word;
}

}  // namespace

bool wordsOfBytes(std::string_view bytes, uint32_t bits, uint64_t* words) {
  if (bits <= 64 && bytes.size() <= sizeof *words) {
    *words = wordOfBytes(bytes);
    return bits == 64 || *words >> bits == 0;
  }
  const uint32_t count = (bits + 63) / 64;
  std::fill(words, words + count, 0);
  while (!bytes.empty() && bytes.front() == '\0') bytes.remove_prefix(1);
  if (bytes.size() > (bits + 7) / 8) return false;
  for (size_t i = 0; i < bytes.size(); ++i)
    words[i / 8] |= uint64_t{static_cast<uint8_t>(bytes[bytes.size() - 1 - i])} << 8 * (i % 8);
  return bits % 64 == 0 || words[count - 1] >> bits % 64 == 0;
}

std::string bytesOfWords(const uint64_t* words, uint32_t bits) {
  std::string bytes((bits + 7) / 8, '\0');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[bytes.size() - 1 - i] = static_cast<char>(words[i / 8] >> 8 * (i % 8));
  return bytes;
}

ActionData::Ptr encodeAction(const Program& program, const ActionSpec& spec,
                             Spares<ActionData>* spares) {
  if (spec.action >= program.actions.size())
    throw Refusal(RefusalKind::notFound, "there is no such action");
  const Action& action = program.actions[spec.action];
  if (spec.arguments.size() != action.parameters.size())
    throw Refusal(RefusalKind::invalid, "action " + action.name + " takes " +
                                            std::to_string(action.parameters.size()) +
                                            " parameters");
  uint32_t words = 0;
  for (const Parameter& parameter : action.parameters) words += (parameter.bits + 63) / 64;
  ActionData::Ptr data =
      ActionData::make(spec.action, words, spares ? spares->take(words) : nullptr);
  uint64_t* to = data->arguments;
  for (size_t i = 0; i < spec.arguments.size(); ++i) {
    const Parameter& parameter = action.parameters[i];
    if (!wordsOfBytes(spec.arguments[i], parameter.bits, to))
      throw Refusal(RefusalKind::invalid, "action " + action.name + ", parameter " +
                                              parameter.name + ": the value does not fit " +
                                              std::to_string(parameter.bits) + " bits");
    to += (parameter.bits + 63) / 64;
  }
  return data;
}

ActionData::Ptr encodeAction(const Program& program, const ActionCall& call) {
  ActionSpec spec{.action = call.action};
  for (const Number& argument : call.arguments) {
    std::string bytes((mpz_sizeinbase(argument.get_mpz_t(), 256)), '\0');
    size_t count = 0;
    mpz_export(bytes.data(), &count, 1, 1, 1, 0, argument.get_mpz_t());
    bytes.resize(count);
    spec.arguments.push_back(std::move(bytes));
  }
  return encodeAction(program, spec);
}

Entry::Ptr encodeKey(const Table& table, const KeyShape& shape,
                     const std::vector<MatchElement>& match, Spares<Entry>* spares) {
  return KeyEncoder(table, shape).encode(match, spares);
}

}  // namespace P4
