// The page for people who would rather look than read metrics; it holds all that it needs.
#pragma once

#include <string>

namespace P4Runtime {

// HTML, made of page.html beside this file.
const std::string& pageText();

}  // namespace P4Runtime
