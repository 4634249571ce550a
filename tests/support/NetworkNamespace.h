// A network namespace of the test's own, with the devices that it makes there. All of it goes when
// the test's process and its children have ended, in any way.
#pragma once

#include <string>

namespace TestSupport {

// Moves this process into a new network namespace, with the loopback device up and no IPv6, so that
// only the test's packets are on the wire. Call it while the process has one thread; its threads
// and children made later are in there, too. "" or why it is not permitted: it takes root, and not
// that of a user namespace, whose sockets get no buffers for bursts.
std::string enteredNetworkNamespace();

// In this process's namespace; each throws std::runtime_error.
void ip(const std::string& arguments);                // runs `ip ARGUMENTS`, split at blanks
void deviceUpIs(const std::string& device, bool up);  // by ioctl: a thousand times a second

// Two devices that are up. Each receives the packets sent through the other. Both are deleted with
// the object.
class VethPair {
 public:
  VethPair(std::string name, std::string peer, unsigned mtuBytes = 9000);
  ~VethPair();
  VethPair(const VethPair&) = delete;
  VethPair& operator=(const VethPair&) = delete;

  const std::string& name() const { return name_; }
  const std::string& peer() const { return peer_; }
  void remade();  // deletes both, and makes others of the same names

 private:
  void made() const;
  void deleted() const;

  const std::string name_;
  const std::string peer_;
  const unsigned mtuBytes_;
};

}  // namespace TestSupport
