// Serves the state database to other processes on a Unix stream socket: a JSON object a line each
// way; see Requests.h. The socket's mode, 0600, says who may.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "platform/orrery/Database.h"
#include "platform/orrery/ServerConnection.h"
#include "platform/vela/FileDescriptor.h"

namespace Orrery {

// Runs on the reactor; a slow client never makes it wait. Call with the activity lock held.
class Server {
 public:
  static constexpr size_t maxConnections = 64;  // further clients are turned away

  // A socket that a dead process left behind is replaced. Throws std::system_error, with
  // address_in_use when another agent serves there. Both references must outlive the server.
  Server(Vela::ReactorLoop& loop, Database& database, std::string socketPath);
  ~Server();  // closes all connections and removes the socket
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  const std::string& socketPath() const { return socketPath_; }
  size_t connections() const { return connections_.size(); }

 private:
  void handleConnection();
  void listenAgain();

  Vela::ReactorLoop& loop_;
  Database& database_;
  std::string socketPath_;
  int socket_ = -1;
  Vela::Ptr<Vela::FileDescriptor> descriptor_;
  std::set<ServerConnection*> connections_;  // each holds a reference that we took
  std::shared_ptr<Server*> alive_;
};

}  // namespace Orrery
