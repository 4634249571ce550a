// Serves the agent's metrics, its page and the page's data by HTTP.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace P4Runtime {

// The contents. Called on the server's threads, without a lock.
struct MonitoringContents {
  std::function<std::string(bool openMetrics)> metrics;
  std::function<std::string()> status;
  std::function<std::string(const std::string& table, const std::string& wanted)> rows;
};

// Listens from construction to destruction, on threads of its own. Read-only: no request changes
// anything. A client that sends or reads nothing loses its connection after a few seconds.
class MonitoringServer {
 public:
  // "127.0.0.1:9464", "[::1]:9464"; port 0: any free one. Throws std::runtime_error with a line for
  // the user when it cannot listen there, or when others than this machine could come.
  MonitoringServer(const std::string& address, MonitoringContents contents);
  ~MonitoringServer();

  const std::string& address() const { return address_; }  // with the port that it has

 private:
  struct Listening;
  std::string address_;
  std::unique_ptr<Listening> listening_;
};

}  // namespace P4Runtime
