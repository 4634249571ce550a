// Texts as they may leave in error messages.
#pragma once

#include <string>
#include <string_view>

namespace pi::fe::proto {

// Turns any bytes into one line of valid UTF-8: control characters and line breaks become blanks,
// bytes that are no UTF-8 become U+FFFD. A bad byte would make a whole response undecodable.
std::string plainText(std::string_view text);

}  // namespace pi::fe::proto
