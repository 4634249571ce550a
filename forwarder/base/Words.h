// Words and numbers as people type them, on the command line and in control commands.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace Forwarder {

std::string_view trimmed(std::string_view text);  // without blanks, tabs and '\r' at its ends

// Removes the first word and the blanks behind it from `text`, and returns the word.
std::string_view takeWord(std::string_view& text);

// The parts before and after the first separator. Without one, the second part is empty.
std::pair<std::string_view, std::string_view> splitAt(std::string_view text, char separator);

// Nothing when the whole text is not a number of 64 bits.
std::optional<uint64_t> decimalNumber(std::string_view text);
std::optional<uint64_t> decimalOrHexNumber(std::string_view text);  // hexadecimal behind 0x or 0X

}  // namespace Forwarder
