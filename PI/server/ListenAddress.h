// Tells beforehand, in words, why a server could not listen on an address; gRPC only says that it
// could not.
#pragma once

#include <string>

namespace pi::server {

// Empty when "host:port" (host in brackets if it is IPv6, port 0 for any) can be bound, and for
// addresses of other kinds, such as "unix:path". Else a line that names the address and a way out.
std::string listenObstacle(const std::string& address);

}  // namespace pi::server
