#include "platform/orrery/Server.h"

#include <utility>

#include "platform/orrery/Requests.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("OrreryServer");

namespace Orrery {
namespace {

Vela::UnixServerOptions serverOptions(std::string path, std::chrono::milliseconds silence) {
  Vela::UnixServerOptions options;
  options.listener.path = std::move(path);
  options.mostClients = Server::maxConnections;
  options.silence = silence;
  options.refusal = [](std::string_view reason) {
    return Vela::jsonLine(*errorAnswer(std::string(reason))) + "\n";
  };
  return options;
}

}  // namespace

Server::Server(Vela::ReactorLoop& loop, Database& database, std::string socketPath,
               std::chrono::milliseconds silence)
    : loop_(loop),
      database_(database),
      alive_(std::make_shared<Server*>(this)),
      server_(loop, serverOptions(std::move(socketPath), silence),
              [this](Vela::UnixClient client) { handleClient(std::move(client)); }) {}

Server::~Server() {
  *alive_ = nullptr;
  for (const auto& connection : connections_) connection->close();
}

void Server::handleClient(Vela::UnixClient client) {
  const auto closed = [alive = alive_](ServerConnection* gone) {
    if (*alive) (*alive)->connections_.erase(Vela::Ptr<ServerConnection>(gone));
  };
  connections_.insert(
      Vela::make<ServerConnection>(loop_, database_, std::move(client), std::move(closed)));
  SCRIVEL_TRACE(2, "client came, now ", connections_.size());
}

}  // namespace Orrery
