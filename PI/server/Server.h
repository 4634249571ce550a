// The gRPC server around the P4Runtime service: listens from its construction until shutDown().
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace grpc {
class ResourceQuota;
class Server;
class ServerCredentials;
namespace experimental {
class ExternalConnectionAcceptor;
}
}  // namespace grpc

namespace pi::server {

class Listener;
class P4RuntimeService;

// Thread-safe.
class Server {
 public:
  // Throws std::runtime_error with a line for the user when it cannot listen.
  Server(const std::string& address, std::shared_ptr<grpc::ServerCredentials> credentials,
         const std::string& localToken);
  // After shutDown(); waits for the last call to return.
  ~Server();

  int port() const;
  uint64_t refusedConnections() const;  // beyond the limit, or without a descriptor for them
  void limitsChanged();
  void policyChanged();
  // While it is on, connections of this process are taken also beyond the limit.
  void ownConnectionsAre(bool on);

  // Takes no new calls, ends streams, cancels calls that still run after `cancelAfter`, and returns
  // once all calls have returned, or after `patience` with some of them left behind.
  void shutDown(std::chrono::milliseconds cancelAfter, std::chrono::milliseconds patience);
  // Waits until it has been shut down and the last call has returned.
  void wait();
  // Removes all devices. Call after wait(), even if others still hold the server: a successor may
  // reuse their ids.
  void devicesDelAll();

 private:
  void begin(std::chrono::milliseconds cancelAfter);

  std::unique_ptr<P4RuntimeService> service_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<grpc::ResourceQuota> quota_;
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor_;
  std::unique_ptr<grpc::Server> server_;

  std::mutex mutex_;  // guards down_ and the start of closing_
  std::condition_variable changed_;
  bool down_ = false;
  std::thread closing_;  // runs from the first shutDown() until all calls have returned
};

}  // namespace pi::server
