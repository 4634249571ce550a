// Both ends of the control socket.
#include "forwarder/ControlSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Forwarder {
namespace {

constexpr size_t maxLine = 65536;  // bytes
constexpr size_t maxClients = 16;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw ControlError("the path " + path + " is too long for a socket; use a shorter --state-dir");
  }
  path.copy(address.sun_path, path.size());
  return address;
}

int socketTo(const std::string& path, int flags) {
  const sockaddr_un address = addressOf(path);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (descriptor < 0) return -1;
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return descriptor;
  }
  const int error = errno;
  close(descriptor);
  errno = error;
  return -1;
}

// A process that was killed may still be on its way out, and take connections: only an answer
// counts, or a silence that a busy forwarder may need.
bool someoneAnswers(const std::string& path) {
  constexpr int patienceMs = 2000;
  const int descriptor = socketTo(path, SOCK_NONBLOCK);
  if (descriptor < 0) return errno == EAGAIN;
  pollfd answer{descriptor, POLLIN, 0};
  char byte;
  const bool alive = ::send(descriptor, "help\n", 5, MSG_NOSIGNAL) == 5 &&
                     (poll(&answer, 1, patienceMs) == 0 || recv(descriptor, &byte, 1, 0) == 1);
  close(descriptor);
  return alive;
}

}  // namespace

std::string controlPath(const std::string& stateDirectory, const std::string& name) {
  return stateDirectory + "/forwarder-" + name + ".sock";
}

ControlSocket::ControlSocket(std::string path, Command command)
    : path_(std::move(path)), command_(std::move(command)) {
  addressOf(path_);
}

ControlSocket::~ControlSocket() { doClose(); }

bool ControlSocket::ours() const {
  struct stat found {};
  return stat(path_.c_str(), &found) == 0 && found.st_dev == device_ && found.st_ino == inode_;
}

// The path goes first: whoever waits for our end may then make its own.
void ControlSocket::doClose() {
  if (listener_ >= 0 && ours()) unlink(path_.c_str());
  for (const Client& client : clients_) close(client.descriptor);
  clients_.clear();
  if (listener_ >= 0) close(std::exchange(listener_, -1));
}

void ControlSocket::maybeListen() {
  if (listening()) {
    if (ours()) return;
    doClose();
  }
  struct stat found {};
  if (lstat(path_.c_str(), &found) == 0) {
    if (!S_ISSOCK(found.st_mode)) {
      throw ControlError(path_ + " is no socket; remove it, or choose another --name");
    }
    if (someoneAnswers(path_)) {
      throw ControlError("a forwarder of this name runs already and listens on " + path_ +
                         "; choose another --name");
    }
    unlink(path_.c_str());
  }
  doListen();
}

// Without the directory there is nothing to do yet: the next call tries again.
void ControlSocket::doListen() {
  const sockaddr_un address = addressOf(path_);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return;
  struct stat made {};
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(descriptor, maxClients) != 0 || stat(path_.c_str(), &made) != 0) {
    const int error = errno;
    close(descriptor);
    if (error == ENOENT) return;
    throw ControlError("cannot listen on " + path_ + ": " + std::strerror(error) +
                       "; check the state directory's permissions");
  }
  listener_ = descriptor;
  device_ = made.st_dev;
  inode_ = made.st_ino;
}

void ControlSocket::pollDescriptors(std::vector<pollfd>& out) const {
  if (!listening()) return;
  out.push_back({listener_, POLLIN, 0});
  for (const Client& client : clients_) {
    const int events = client.later ? 0 : client.answered ? POLLOUT : POLLIN;
    out.push_back({client.descriptor, static_cast<short>(events), 0});
  }
}

void ControlSocket::serve() {
  if (!listening()) return;
  acceptClients();
  for (auto client = clients_.begin(); client != clients_.end();) {
    if (advanced(*client)) {
      ++client;
    } else {
      close(client->descriptor);
      client = clients_.erase(client);
    }
  }
}

void ControlSocket::acceptClients() {
  for (;;) {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) return;
    if (clients_.size() == maxClients) {  // whoever waits longest has gone to sleep
      close(clients_.front().descriptor);
      clients_.pop_front();
    }
    clients_.push_back({.descriptor = descriptor});
  }
}

bool ControlSocket::advanced(Client& client) {
  if (!client.answered) {
    if (!receive(client)) return false;
    const size_t end = client.in.find('\n');
    if (end == client.in.npos && client.in.size() <= maxLine) return true;
    Answer answer{false, "the command is longer than " + std::to_string(maxLine) + " bytes"};
    if (end != client.in.npos) answer = command_(std::string_view(client.in).substr(0, end));
    client.answered = true;
    client.later = std::move(answer.later);
    if (!client.later) doAnswer(client, answer);
  }
  if (client.later) {
    const auto answer = client.later();
    if (!answer) return !gone(client);
    client.later = {};
    doAnswer(client, *answer);
  }
  return send(client);
}

void ControlSocket::doAnswer(Client& client, const Answer& answer) {
  client.out = answer.ok ? "ok\n" + answer.text : "error " + answer.text + '\n';
}

bool ControlSocket::gone(const Client& client) {
  pollfd state{client.descriptor, 0, 0};
  return poll(&state, 1, 0) == 1;  // it hung up
}

bool ControlSocket::receive(Client& client) {
  char buffer[4096];
  while (client.in.size() <= maxLine && client.in.find('\n') == client.in.npos) {
    const ssize_t got = recv(client.descriptor, buffer, sizeof buffer, 0);
    if (got > 0) {
      client.in.append(buffer, got);
    } else {
      return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
  }
  return true;
}

bool ControlSocket::send(Client& client) {
  while (client.outSent < client.out.size()) {
    const ssize_t sent = ::send(client.descriptor, client.out.data() + client.outSent,
                                client.out.size() - client.outSent, MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN || errno == EINTR;
    client.outSent += sent;
  }
  return false;
}

Answer asked(const std::string& path, const std::string& line) {
  const int descriptor = socketTo(path, 0);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path);
  const std::string question = line + '\n';
  std::string text;
  if (::send(descriptor, question.data(), question.size(), MSG_NOSIGNAL) ==
      static_cast<ssize_t>(question.size())) {
    char buffer[65536];
    ssize_t got = 0;
    while ((got = recv(descriptor, buffer, sizeof buffer, 0)) > 0) text.append(buffer, got);
  }
  close(descriptor);
  if (text.starts_with("ok\n")) return {true, text.substr(3)};
  if (text.starts_with("error ") && text.ends_with('\n')) {
    return {false, text.substr(6, text.size() - 7)};
  }
  return {false, "the forwarder went away before it answered"};
}

}  // namespace Forwarder
