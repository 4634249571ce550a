#include "platform/vela/ErrorLine.h"

#include <fmt/format.h>

#include <cstdio>
#include <iterator>

namespace Vela {

// Not fmt::print(), which throws when the file cannot be written.
void writeErrorLine(fmt::string_view format, fmt::format_args arguments) noexcept try {
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), "korvel: ");
  fmt::vformat_to(std::back_inserter(line), format, arguments);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
} catch (...) {  // no memory for it
}

}  // namespace Vela
