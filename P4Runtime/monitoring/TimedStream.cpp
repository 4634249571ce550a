#include "P4Runtime/monitoring/TimedStream.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>

namespace P4Runtime {
namespace {

constexpr size_t mostBytesRead = 65536;  // of one request

using AskName = int(int, sockaddr*, socklen_t*);

void nameOf(AskName ask, int socket, std::string& ip, int& port) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  auto* const given = reinterpret_cast<sockaddr*>(&address);
  char host[NI_MAXHOST] = "";
  char service[NI_MAXSERV] = "";
  if (ask(socket, given, &size) != 0) return;
  if (getnameinfo(given, size, host, sizeof(host), service, sizeof(service),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return;
  }
  ip = host;
  std::from_chars(service, std::ranges::find(service, '\0'), port);
}

}  // namespace

std::string peerText(const std::string& ip, int port) {
  const bool isSix = ip.find(':') != std::string::npos;
  return fmt::format(fmt::runtime(isSix ? "ipv6:[{}]:{}" : "ipv4:{}:{}"), ip, port);
}

TimedStream::TimedStream(int socket, SSL* tls) : socket_(socket), tls_(tls) {
  fcntl(socket_, F_SETFL, fcntl(socket_, F_GETFL) | O_NONBLOCK);
}

void TimedStream::deadlineIs(Clock::time_point deadline) {
  deadline_ = deadline;
  mayRead_ = mostBytesRead;
}

bool TimedStream::handshake() {
  return !tls_ || untilDeadline(0, [this] { return SSL_accept(tls_); }) == 1;
}

bool TimedStream::is_readable() const { return (tls_ && SSL_pending(tls_) > 0) || waitFor(POLLIN); }

bool TimedStream::is_writable() const { return waitFor(POLLOUT); }

ssize_t TimedStream::read(char* bytes, size_t size) {
  const size_t wanted = std::min(size, mayRead_);
  if (wanted == 0) return -1;
  const ssize_t result = untilDeadline(POLLIN, [&]() -> ssize_t {
    return tls_ ? SSL_read(tls_, bytes, static_cast<int>(wanted)) : recv(socket_, bytes, wanted, 0);
  });
  if (result > 0) mayRead_ -= static_cast<size_t>(result);
  return result;
}

ssize_t TimedStream::write(const char* bytes, size_t size) {
  const size_t wanted = std::min<size_t>(size, std::numeric_limits<int>::max());
  return untilDeadline(POLLOUT, [&]() -> ssize_t {
    return tls_ ? SSL_write(tls_, bytes, static_cast<int>(wanted))
                : send(socket_, bytes, wanted, MSG_NOSIGNAL);
  });
}

void TimedStream::get_remote_ip_and_port(std::string& ip, int& port) const {
  nameOf(getpeername, socket_, ip, port);
}

void TimedStream::get_local_ip_and_port(std::string& ip, int& port) const {
  nameOf(getsockname, socket_, ip, port);
}

template <typename Try>
ssize_t TimedStream::untilDeadline(short plainEvents, Try attempt) const {
  while (Clock::now() < deadline_) {
    if (tls_) ERR_clear_error();
    const ssize_t result = attempt();
    if (result > 0) return result;
    const short events = eventsAfter(result, plainEvents);
    if (events == 0) return result;
    if (!waitFor(events)) return -1;
  }
  return -1;
}

// Zero: waiting does not help.
short TimedStream::eventsAfter(ssize_t result, short plainEvents) const {
  if (!tls_) {
    const bool waits = result < 0 && (errno == EAGAIN || errno == EINTR);
    return waits ? plainEvents : short{0};
  }
  const int error = SSL_get_error(tls_, static_cast<int>(result));
  if (error == SSL_ERROR_WANT_READ) return POLLIN;
  return error == SSL_ERROR_WANT_WRITE ? POLLOUT : short{0};
}

bool TimedStream::waitFor(short events) const {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now());
  if (left <= milliseconds(0)) return false;
  pollfd one{socket_, events, 0};
  const int found = poll(&one, 1, static_cast<int>(left.count()));
  return found > 0 || (found < 0 && errno == EINTR);
}

}  // namespace P4Runtime
