// Serves the agent's metrics, its page and the page's data by HTTP.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace pi {
class ServerTls;
}

namespace P4Runtime {

// The contents. Called on the server's threads, without a lock.
struct MonitoringContents {
  std::function<std::string(bool openMetrics)> metrics;
  std::function<std::string()> status;
  std::function<std::string(const std::string& table, const std::string& wanted)> rows;
};

// Why no machine could serve that address; empty: some could. Call from any thread.
std::string monitoringAddressFault(const std::string& address, bool hasCertificates);

// Listens from construction to destruction, on threads of its own. Read-only: no request changes
// anything. With a policy, requests are calls that it must allow, by their paths. A few connections
// are served at a time, by TLS fewer of each address, and some more wait.
class MonitoringServer {
 public:
  // "127.0.0.1:9464", "[::1]:9464"; port 0: any free one. Addresses that other machines reach are
  // served by TLS alone, which `tls` makes; null where there are no certificates. This machine's
  // own are served without. Throws std::runtime_error with a line for the user when it cannot
  // listen there, or needs TLS and has none; and what `tls` throws.
  using MakeTls = std::function<std::unique_ptr<pi::ServerTls>()>;
  // A client has `patience` for its handshake and request, and loses its connection after it.
  MonitoringServer(const std::string& address, MonitoringContents contents, const MakeTls& tls,
                   std::chrono::milliseconds patience = std::chrono::seconds(10));
  ~MonitoringServer();

  const std::string& address() const { return address_; }  // with the port that it has
  bool isSecured() const;                                  // by TLS

 private:
  struct Listening;
  std::string address_;
  std::unique_ptr<Listening> listening_;
};

}  // namespace P4Runtime
