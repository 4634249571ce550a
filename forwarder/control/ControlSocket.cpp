// Both ends of the control socket.
#include "forwarder/control/ControlSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Forwarder {
namespace {

constexpr size_t maxLine = 65536;  // bytes
constexpr size_t maxClients = 16;

// A killed process may still accept connections on its way out. A reply, or the silence of a busy
// forwarder, shows that one lives.
bool forwarderReplies(int connection) {
  constexpr int patienceMs = 2000;
  pollfd answer{connection, POLLIN, 0};
  char byte;
  return ::send(connection, "help\n", 5, MSG_NOSIGNAL) == 5 &&
         (poll(&answer, 1, patienceMs) == 0 || recv(connection, &byte, 1, 0) == 1);
}

// The directory may come later; descriptors and memory may be free later.
bool mayPass(int error) {
  return error == ENOENT || error == EMFILE || error == ENFILE || error == ENOBUFS ||
         error == ENOMEM;
}

}  // namespace

std::string controlPath(const std::string& stateDirectory, const std::string& name) {
  return stateDirectory + "/forwarder-" + name + ".sock";
}

ControlSocket::ControlSocket(std::string path, Command command)
    : path_(std::move(path)), command_(std::move(command)) {}

ControlSocket::~ControlSocket() { doClose(); }

// The path goes first: a forwarder that waits for our end may then make its own.
void ControlSocket::doClose() {
  listener_.reset();
  for (const Client& client : clients_) close(client.descriptor);
  clients_.clear();
}

void ControlSocket::maybeListen() {
  if (listening()) {
    if (listener_->inPlace()) return;
    doClose();
  }
  doListen();
}

void ControlSocket::doListen() try {
  listener_ = std::make_unique<Vela::UnixListener>(
      Vela::UnixListenerOptions{.path = path_, .alive = forwarderReplies});
} catch (const std::system_error& e) {
  const int error = e.code().value();
  if (mayPass(error)) return;  // the next call tries again
  if (error == EADDRINUSE) {
    throw ControlError("a forwarder of this name runs already and listens on " + path_ +
                       "; choose another --name");
  }
  throw ControlError(e.what());
}

void ControlSocket::pollDescriptors(std::vector<pollfd>& out) const {
  if (!listening()) return;
  if (!noRoom_) out.push_back({listener_->descriptor(), POLLIN, 0});
  for (const Client& client : clients_) {
    const int events = client.later ? 0 : client.commandRun ? POLLOUT : POLLIN;
    out.push_back({client.descriptor, static_cast<short>(events), 0});
  }
}

void ControlSocket::serve() {
  if (!listening()) return;
  acceptClients();
  for (auto client = clients_.begin(); client != clients_.end();) {
    if (advance(*client)) {
      ++client;
    } else {
      close(client->descriptor);
      client = clients_.erase(client);
    }
  }
}

void ControlSocket::acceptClients() {
  for (;;) {
    Vela::UnixListener::Caller caller;
    const auto turn = listener_->accept(&caller);
    noRoom_ = turn == Vela::UnixListener::Turn::noRoom;
    if (turn != Vela::UnixListener::Turn::caller) return;
    if (!caller.refusal.empty()) {
      const std::string words = "error " + caller.refusal + '\n';
      ::send(caller.socket.get(), words.data(), words.size(), MSG_NOSIGNAL);
      continue;
    }
    if (clients_.size() == maxClients) {  // the longest-waiting client sleeps
      close(clients_.front().descriptor);
      clients_.pop_front();
    }
    clients_.push_back({.descriptor = caller.socket.release()});
  }
}

bool ControlSocket::advance(Client& client) {
  if (!client.commandRun) {
    if (!receive(client)) return false;
    maybeRunCommand(client);
    if (!client.commandRun) return true;  // the line is not complete
  }
  if (client.later) {
    const auto answer = client.later();
    if (!answer) return !hungUp(client);
    client.later = {};
    putAnswer(client, *answer);
  }
  return send(client);
}

void ControlSocket::maybeRunCommand(Client& client) {
  const size_t end = client.in.find('\n');
  if (end == client.in.npos && client.in.size() <= maxLine) return;  // receive() brings the rest
  Answer answer{false, "the command is longer than " + std::to_string(maxLine) + " bytes"};
  if (end != client.in.npos) answer = command_(std::string_view(client.in).substr(0, end));
  client.commandRun = true;
  client.later = std::move(answer.later);
  if (!client.later) putAnswer(client, answer);
}

void ControlSocket::putAnswer(Client& client, const Answer& answer) {
  client.out = answer.ok ? "ok\n" + answer.text : "error " + answer.text + '\n';
}

bool ControlSocket::hungUp(const Client& client) {
  pollfd state{client.descriptor, 0, 0};
  return poll(&state, 1, 0) == 1;
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

Answer sendCommand(const std::string& path, const std::string& line) {
  const Vela::UnixAddress address(path);
  const Vela::UniqueFd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int descriptor = connection.get();
  if (descriptor < 0 || connect(descriptor, address.get(), Vela::UnixAddress::size()) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  const std::string command = line + '\n';
  std::string text;
  if (::send(descriptor, command.data(), command.size(), MSG_NOSIGNAL) ==
      static_cast<ssize_t>(command.size())) {
    char buffer[65536];
    ssize_t got = 0;
    while ((got = recv(descriptor, buffer, sizeof buffer, 0)) > 0) text.append(buffer, got);
  }
  if (text.starts_with("ok\n")) return {true, text.substr(3)};
  if (text.starts_with("error ") && text.ends_with('\n')) {
    return {false, text.substr(6, text.size() - 7)};
  }
  return {false, "the forwarder went away before it answered"};
}

}  // namespace Forwarder
