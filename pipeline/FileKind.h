// Tells files apart by their contents, also one that was named in place of another.
#pragma once

#include <string>
#include <string_view>

namespace Pipeline {

// Whether the contents could be text: no control characters but white space.
bool looksLikeText(std::string_view contents);

// For a file that is no pipeline file, or may not be one: its kind, and how to make a pipeline file
// of it ("it is a P4Info; ..."). Empty for a file of unknown kind.
std::string whyNoPipelineFile(std::string_view contents);

// The same for a file that is no P4Info.
std::string whyNoP4Info(std::string_view contents);

}  // namespace Pipeline
