// Texts as they may leave in error messages.
#include "PI/core/PlainText.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace pi::core {

namespace {

bool isPlain(char c) { return c >= 0x20 && c < 0x7f; }

// The code point at the front, and its bytes; no bytes when they are no UTF-8.
struct Decoded {
  uint32_t codePoint = 0;
  size_t bytes = 0;
};

Decoded decoded(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < bytes) return {};
  uint32_t codePoint = lead & (0x7fu >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<uint8_t>(text[i]);
    if ((next & 0xc0) != 0x80) return {};
    codePoint = codePoint << 6 | (next & 0x3f);
  }
  constexpr std::array<uint32_t, 5> kLeast{0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = codePoint >= 0xd800 && codePoint < 0xe000;
  if (codePoint < kLeast[bytes] || codePoint > 0x10ffff || isSurrogate) return {};
  return {codePoint, bytes};
}

bool breaksLine(uint32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0) || codePoint == 0x2028 ||
         codePoint == 0x2029;
}

}  // namespace

std::string plainText(std::string_view text) {
  if (std::all_of(text.begin(), text.end(), isPlain)) return std::string(text);
  std::string result;
  while (!text.empty()) {
    const Decoded front = decoded(text);
    if (front.bytes == 0) {
      result += "\xef\xbf\xbd";
    } else if (breaksLine(front.codePoint)) {
      result += ' ';
    } else {
      result += text.substr(0, front.bytes);
    }
    text.remove_prefix(std::max<size_t>(front.bytes, 1));
  }
  return result;
}

std::string plainText(std::string_view text, size_t most) {
  if (text.size() <= most) return plainText(text);
  while (most > 0 && (static_cast<uint8_t>(text[most]) & 0xc0) == 0x80) --most;
  return plainText(text.substr(0, most)) + "...";
}

}  // namespace pi::core
