// The secret by which the process that runs the server proves itself to it.
#pragma once

#include <string>
#include <string_view>

namespace pi::server {

// 64 hexadecimal digits from the kernel's random numbers; empty when it gives none.
std::string randomToken();

// The time it takes tells nothing but the sizes. False when the secret is empty.
bool equalInConstantTime(std::string_view given, std::string_view secret);

}  // namespace pi::server
