// What a file is that someone has named in place of another one.
#pragma once

#include <string>
#include <string_view>

namespace Pipeline {

// For a file that is no pipeline file, or that may be none: what it is instead, and how a pipeline
// file is made of it ("it is a P4Info; ..."). Empty when nothing is known of it.
std::string whyNoPipelineFile(std::string_view contents);

// The same for a file that is no P4Info.
std::string whyNoP4Info(std::string_view contents);

}  // namespace Pipeline
