// Lines for the operator on standard error.
#pragma once

#include <fmt/core.h>

#include <utility>

namespace Vela {

// See tellError().
void writeErrorLine(fmt::string_view format, fmt::format_args arguments) noexcept;

// Writes "korvel: TEXT" and a line end, in one go. Never throws: a line that standard error does
// not take, such as a file on a full disk, is lost, and the process goes on. From any thread.
template <typename... Arguments>
void tellError(fmt::format_string<Arguments...> format, Arguments&&... arguments) noexcept {
  writeErrorLine(format, fmt::make_format_args(arguments...));
}

}  // namespace Vela
