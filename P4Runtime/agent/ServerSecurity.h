// Where the P4Runtime server listens, and whom it believes: out of the configuration, checked.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/SecurityConfig.h"

namespace P4Runtime {

struct ServerSecurity {
  bool insecure = false;    // plain, and other machines reach it
  std::string certificate;  // "": without TLS; else key and clientCa are there, too
  std::string key;
  std::string clientCa;
  std::string crl;
  std::string unixSocket;  // a path; "": none
  uint32_t unixMode = 0600;
  uid_t unixUser = static_cast<uid_t>(-1);
  gid_t unixGroup = static_cast<gid_t>(-1);
};

// Throws Vela::Exception, in words for operators, for a configuration that contradicts itself, and
// for one that would let strangers in without saying so. Call with the activity lock held.
ServerSecurity serverSecurity(const P4RuntimeConfig::P4RtSystemConfig& system,
                              const P4RuntimeConfig::SecurityConfig& security);

// The same without the users and groups of this machine.
ServerSecurity securityOnAnyMachine(const P4RuntimeConfig::P4RtSystemConfig& system,
                                    const P4RuntimeConfig::SecurityConfig& security);

// Starts the server as PIGrpcServerRunAddr() does, with its result. `address` is not used where
// `port` is 0. Any thread.
int runServer(const ServerSecurity& security, const std::string& address, uint16_t port);

// Of the running server, for people; the first line says how it is secured, others name trouble.
std::string securityText(const ServerSecurity& security, uint16_t port);

// Says on standard error how the server is secured, whenever that changes. A text counts once it
// has come twice, since files change one after the other.
class SecurityLog {
 public:
  void textIs(const std::string& text);

 private:
  std::string last_;
  std::string told_;
};

}  // namespace P4Runtime
