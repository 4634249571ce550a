// Opens sockets that listen on an address, or says in words why it cannot.
#pragma once

#include <string>
#include <vector>

namespace pi::server {

// Non-blocking sockets that listen on each address that "host:port" means (host in brackets if it
// is IPv6, port 0 for any); at least one, the caller's to close. "[::]" is every address of either
// family. Throws std::runtime_error with a line that names the address and a way out.
std::vector<int> listeningSockets(const std::string& address, int backlog);

int portOf(int socket);

}  // namespace pi::server
