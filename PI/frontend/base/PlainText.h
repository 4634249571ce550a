// Texts as they may leave in error messages.
#pragma once

#include <string>
#include <string_view>

namespace pi::fe::proto {

// One line of valid UTF-8, whatever came in: control characters and line breaks become blanks, and
// bytes that are no UTF-8 become U+FFFD. Anything else would make a whole answer undecodable.
std::string plainText(std::string_view text);

}  // namespace pi::fe::proto
