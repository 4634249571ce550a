// Text from outside, made fit for messages, statuses and logs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Vela {

// A plain line is UTF-8 without control characters and line separators, of at most `most` bytes.
// plainLine() makes one of any text: U+FFFD stands for each byte that belongs to no character, a
// blank for each control character, and "..." at the end for the rest that was cut off.
bool isPlainLine(std::string_view text, size_t most);
std::string plainLine(std::string_view text, size_t most);
// The same of any length, with its line ends and tabs.
std::string validUtf8(std::string_view text);

}  // namespace Vela
