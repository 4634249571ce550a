// The Unix socket on which a running forwarder takes commands, one line a connection.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "forwarder/Commands.h"
#include "platform/vela/UnixListener.h"

namespace Forwarder {

// DIRECTORY/forwarder-NAME.sock
std::string controlPath(const std::string& stateDirectory, const std::string& name);

// Another forwarder listens at the path, or the path cannot be a socket's.
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// For this user and root alone. Never blocks: a client that reads slowly keeps its answer waiting,
// and nobody else's. An answer is the line "ok" and the text, or the line "error REASON"; then the
// connection ends.
class ControlSocket {
 public:
  using Command = std::function<Answer(std::string_view line)>;
  ControlSocket(std::string path, Command command);
  ~ControlSocket();  // removes the socket if it is still ours
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // Listens if it can and does not yet: the directory may come later, or be made anew. A socket
  // that a killed forwarder left is replaced; to know it, this may wait for an answer. Throws
  // ControlError.
  void maybeListen();
  bool listening() const { return listener_ != nullptr; }
  void pollDescriptors(std::vector<pollfd>& out) const;  // appends what to wait for
  void serve();  // does what can be done without waiting; asks for answers that are yet to come

 private:
  struct Client {
    int descriptor = -1;
    std::string in;
    std::string out;
    size_t outSent = 0;
    bool answered = false;
    std::function<std::optional<Answer>()> later;  // set: the answer is yet to come
  };
  void doListen();
  void doClose();
  void acceptClients();
  static bool receive(Client& client);  // false when the client is gone
  static bool gone(const Client& client);
  static void doAnswer(Client& client, const Answer& answer);
  static bool send(Client& client);  // false when all is sent or the client is gone
  bool advanced(Client& client);     // false when the connection is over

  const std::string path_;
  const Command command_;
  std::unique_ptr<Vela::UnixListener> listener_;
  bool noRoom_ = false;  // no descriptor for the client that waits: not polled for
  std::list<Client> clients_;
};

// The client's side. Throws std::system_error when there is no forwarder.
Answer asked(const std::string& path, const std::string& line);

}  // namespace Forwarder
