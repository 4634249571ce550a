// A connection of HTTP, plain or by TLS, that ends at a deadline.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace P4Runtime {

// "ipv4:192.0.2.1:40000", as gRPC writes it; "ipv6:[2001:db8::1]:40000".
std::string peerText(const std::string& ip, int port);

// For one thread. Sockets and TLS stay their owner's; the socket is set not to block. Reads and
// writes wait until the deadline at the latest, however much the peer sends, and then fail.
class TimedStream final : public httplib::Stream {
 public:
  using Clock = std::chrono::steady_clock;

  TimedStream(int socket, SSL* tls);  // null: plain

  // For what follows, which may read a bounded number of bytes.
  void deadlineIs(Clock::time_point deadline);
  bool isSpent() const { return mayRead_ == 0; }  // it has read all that it may
  bool handshake();                               // of TLS; true without TLS

  bool is_readable() const override;  // false: nothing came until the deadline
  bool is_writable() const override;
  ssize_t read(char* bytes, size_t size) override;
  ssize_t write(const char* bytes, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return socket_; }

 private:
  template <typename Try>
  ssize_t untilDeadline(short plainEvents, Try attempt) const;
  short eventsAfter(ssize_t result, short plainEvents) const;
  bool waitFor(short events) const;

  const int socket_;
  SSL* const tls_;
  Clock::time_point deadline_;
  size_t mayRead_ = 0;  // bytes
};

}  // namespace P4Runtime
