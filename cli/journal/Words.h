// Times and codes of a journal as text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "journal/Record.h"

namespace Cli {

std::string timeText(Journal::Time time);  // "2026-11-22T20:00:00.123456Z"
std::string codeText(uint32_t code);       // of gRPC: "NOT_FOUND"
// A text that others have chosen, as a line of what a terminal can show; a long one is cut.
std::string plainText(std::string_view text);

}  // namespace Cli
