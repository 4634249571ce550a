// Texts as they may leave in error messages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pi::core {

// Turns any bytes into one line of valid UTF-8: control characters and line breaks become blanks,
// bytes that are no UTF-8 become U+FFFD. A bad byte would make a whole response undecodable.
std::string plainText(std::string_view text);
// The same of its first `most` bytes, cut between two characters; "..." stands for the rest.
std::string plainText(std::string_view text, size_t most);

}  // namespace pi::core
