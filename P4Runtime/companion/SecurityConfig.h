// How the P4Runtime server knows its clients, as the operator wants it.
#pragma once

#include <string>

#include "platform/vela/Entity.h"

namespace P4RuntimeConfig {

// At "p4runtime/config/security"; all but the policy are read when the agent starts. Paths name
// files: those of TLS in PEM; "" none. Call with the activity lock held.
class SecurityConfig : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::SecurityConfig"; }

  // Serves addresses that other machines reach without TLS.
  VELA_ATTRIBUTE(bool, insecure, false)
  VELA_ATTRIBUTE(std::string, certificate, "")  // the server's, then its intermediates
  VELA_ATTRIBUTE(std::string, key, "")
  VELA_ATTRIBUTE(std::string, clientCa, "")  // who signs clients' certificates
  VELA_ATTRIBUTE(std::string, crl, "")       // clients' certificates that count no more
  // "unix:/run/korvel/p4rt.sock" or the path alone: listens there, too.
  VELA_ATTRIBUTE(std::string, unixSocket, "")
  VELA_ATTRIBUTE(std::string, unixMode, "0600")  // octal
  VELA_ATTRIBUTE(std::string, unixOwner, "")     // "user", "user:group" or ":group"
  VELA_ATTRIBUTE(std::string, policy, "")        // who may do what, a file in JSON
};

}  // namespace P4RuntimeConfig
