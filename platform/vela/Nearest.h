// Which word was meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Vela {

// The word of `known` that takes the fewest changes of a letter, or that `word` begins; empty when
// all are far off.
std::string nearest(std::string_view word, const std::vector<std::string>& known);

}  // namespace Vela
