#include "platform/vela/PlainText.h"

#include <cstdint>

namespace Vela {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

struct Character {
  size_t size = 1;  // bytes
  bool valid = false;
  bool breaksLine = false;  // or is another control character
};

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The one at the front of `text`, which is not empty.
Character characterOf(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return {1, true, first < 0x20 || first == 0x7F};
  const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < size) return {};
  uint32_t code = first & (0x7Fu >> size);
  for (size_t i = 1; i < size; ++i) {
    if (!isContinuation(text[i])) return {};
    code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
  }
  const bool overlong = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
  if (overlong || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return {};
  return {size, true, code < 0xA0 || code == 0x2028 || code == 0x2029};
}

}  // namespace

bool isPlainLine(std::string_view text, size_t most) {
  if (text.size() > most) return false;
  while (!text.empty()) {
    const Character one = characterOf(text);
    if (!one.valid || one.breaksLine) return false;
    text.remove_prefix(one.size);
  }
  return true;
}

std::string plainLine(std::string_view text, size_t most) {
  constexpr std::string_view cut = "...";
  std::string line;
  size_t fitting = 0;  // of it, with `cut` behind
  for (; !text.empty() && line.size() <= most;) {
    const Character one = characterOf(text);
    if (line.size() + cut.size() <= most) fitting = line.size();
    if (!one.valid) {
      line += replacement;
    } else if (one.breaksLine) {
      line += ' ';
    } else {
      line += text.substr(0, one.size);
    }
    text.remove_prefix(one.size);
  }
  if (line.size() <= most) return line;
  line.resize(fitting);
  return line.append(cut.substr(0, most - fitting));
}

std::string validUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  while (!text.empty()) {
    const Character one = characterOf(text);
    valid += one.valid ? text.substr(0, one.size) : replacement;
    text.remove_prefix(one.size);
  }
  return valid;
}

}  // namespace Vela
