#include "P4Runtime/monitoring/HttpServer.h"

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "P4Runtime/monitoring/TimedStream.h"
#include "PI/proto/pi_server_shared.h"

namespace P4Runtime {
namespace {

constexpr std::chrono::seconds mostIdle{2};  // between two requests

struct FreeTls {
  void operator()(SSL* tls) const { SSL_free(tls); }
};

// Machines choose the lower half of an IPv6 address themselves.
std::string peerOf(int socket) {
  sockaddr_in6 address{};
  socklen_t size = sizeof(address);
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
  if (address.sin6_family != AF_INET6) {
    sockaddr_in four{};
    std::memcpy(&four, &address, sizeof(four));
    return {reinterpret_cast<const char*>(&four.sin_addr), sizeof(four.sin_addr)};
  }
  const auto* bytes = reinterpret_cast<const char*>(&address.sin6_addr);
  if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) return {bytes + 12, 4};
  return {bytes, 8};
}

void accountHandshake(const TimedStream& stream, bool isLate) {
  std::string ip;
  int port = 0;
  stream.get_remote_ip_and_port(ip, port);
  const char* const error = ERR_reason_error_string(ERR_peek_last_error());
  const char* const reason = isLate ? "it took too long" : error ? error : "the client ended it";
  constexpr int unavailable = 14;
  pi::accountRefusal(
      {"handshake", "", peerText(ip, port), "", unavailable, std::string("monitoring: ") + reason});
}

}  // namespace

void HttpServer::FreeContext::operator()(SSL_CTX* context) const { SSL_CTX_free(context); }

HttpServer::HttpServer(pi::ServerTls* tls, std::chrono::milliseconds patience)
    : patience_(patience) {
  set_keep_alive_timeout(mostIdle.count());
  if (!tls) return;
  context_.reset(SSL_CTX_new(TLS_server_method()));
  if (!context_) throw std::runtime_error("TLS: no memory for its context");
  tls->setUp(*context_);
}

// Called by the workers' threads. Plain clients are all of this machine, and have one address.
bool HttpServer::process_and_close_socket(socket_t socket) {
  if (!context_) {
    serve(socket);
    return true;
  }
  const std::string peer = peerOf(socket);
  const PeerShares::Turn turn = shares_.turnOf(peer, socket);
  if (turn == PeerShares::Turn::never) close(socket);
  if (turn != PeerShares::Turn::now) return false;
  for (std::optional<int> next = socket; next; next = shares_.nextOf(peer)) serve(*next);
  return true;
}

void HttpServer::serve(int socket) {
  if (!context_) {
    serveRequests(socket, nullptr);
  } else if (const std::unique_ptr<SSL, FreeTls> tls{SSL_new(context_.get())}) {
    if (SSL_set_fd(tls.get(), socket) == 1) serveRequests(socket, tls.get());
    ERR_clear_error();
  }
  shutdown(socket, SHUT_RDWR);
  close(socket);
}

void HttpServer::serveRequests(int socket, SSL* tls) {
  using Clock = TimedStream::Clock;
  TimedStream stream(socket, tls);
  const auto last = Clock::now() + patience_;
  stream.deadlineIs(last);
  if (!stream.handshake()) {
    accountHandshake(stream, Clock::now() >= last);
    return;
  }
  const auto describe = [tls](httplib::Request& request) {
    request.ssl = tls;
    request.ranges.clear();
  };
  bool isClosed = false;
  bool isFirst = true;
  while (!isClosed && svr_sock_ != INVALID_SOCKET && stream.is_readable()) {
    if (!std::exchange(isFirst, false)) stream.deadlineIs(Clock::now() + patience_);
    if (!process_request(stream, Clock::now() >= last, isClosed, describe) || stream.isSpent())
      break;
    stream.deadlineIs(std::min(Clock::now() + mostIdle, last));
  }
  if (tls) SSL_shutdown(tls);
}

}  // namespace P4Runtime
