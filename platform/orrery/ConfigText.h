// The configuration file's form: JSON with comments.
#pragma once

#include <string>

namespace Orrery {

// Replaces comments (from // to the end of the line, and /* */) and commas before a closing brace
// or bracket by blanks, so that all else keeps its line and column. Strings stay as they are, and
// so does a comment without an end, which the JSON parser then stops at.
std::string plainJson(std::string text);

}  // namespace Orrery
