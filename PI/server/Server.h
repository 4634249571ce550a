// The gRPC server around the P4Runtime service: listens from its construction until shutDown().
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "PI/server/UnixSocket.h"

namespace grpc {
class Channel;
class ResourceQuota;
class Server;
class ServerCredentials;
namespace experimental {
class ExternalConnectionAcceptor;
}
}  // namespace grpc

namespace pi::server {

class CertificateWatch;
class Listener;
class LiveCertificates;
class P4RuntimeService;
class UnixUsers;

// An address, a Unix socket, or both.
struct ListenOn {
  std::string address;                                   // "" for none
  std::shared_ptr<grpc::ServerCredentials> credentials;  // of connections to the address
  std::shared_ptr<LiveCertificates> certificates;        // that these use; may be null
  std::optional<UnixSocketOptions> unixSocket;
};

// Thread-safe.
class Server {
 public:
  // Throws std::runtime_error with a line for the user when it cannot listen.
  Server(const ListenOn& where, const std::string& localToken);
  // After shutDown(); waits for the last call to return.
  ~Server();

  int port() const;  // 0: a Unix socket alone
  std::shared_ptr<grpc::Channel> ownChannel();
  void removeUnixSocket();
  const std::shared_ptr<LiveCertificates>& certificates() const { return certificates_; }
  uint64_t refusedConnections() const;  // beyond the limit, or without a descriptor for them
  void limitsChanged();
  void policyChanged();

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
  void hand(int listenerFd, int fd);

  std::unique_ptr<P4RuntimeService> service_;
  const std::shared_ptr<LiveCertificates> certificates_;
  std::unique_ptr<UnixSocket> unixSocket_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<grpc::ResourceQuota> quota_;
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor_;
  std::unique_ptr<UnixUsers> unixUsers_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<CertificateWatch> watch_;

  std::mutex mutex_;  // guards down_ and the start of closing_
  std::condition_variable changed_;
  bool down_ = false;
  std::thread closing_;  // runs from the first shutDown() until all calls have returned
};

}  // namespace pi::server
