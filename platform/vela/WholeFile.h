// Files that readers find either as they were or as they are to be.
#pragma once

#include <string>

namespace Vela {

// Replaces the file as a whole. Throws std::system_error, naming it; the former one then stands.
void writeWholeFile(const std::string& path, const std::string& text);

}  // namespace Vela
