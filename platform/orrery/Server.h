// Serves the state database to other processes on a Unix stream socket: a JSON object a line each
// way; see Requests.h. Only this user and root may connect.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <unordered_set>

#include "platform/orrery/Database.h"
#include "platform/orrery/ServerConnection.h"
#include "platform/vela/UnixServer.h"

namespace Orrery {

// Runs on the reactor; a slow client never makes it wait. Call with the activity lock held.
class Server {
 public:
  static constexpr size_t maxConnections = 64;  // further clients are turned away

  // A socket that a dead process left behind is replaced. A client that makes no request within
  // `silence` is disconnected. Throws std::system_error, with address_in_use when another agent
  // serves there. Both references must outlive the server.
  Server(Vela::ReactorLoop& loop, Database& database, std::string socketPath,
         std::chrono::milliseconds silence = std::chrono::seconds(10));
  ~Server();  // closes all connections and removes the socket
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  const std::string& socketPath() const { return server_.path(); }
  size_t connections() const { return connections_.size(); }

 private:
  void handleClient(Vela::UnixClient client);

  Vela::ReactorLoop& loop_;
  Database& database_;
  std::unordered_set<Vela::Ptr<ServerConnection>> connections_;
  std::shared_ptr<Server*> alive_;
  Vela::UnixServer server_;
};

}  // namespace Orrery
