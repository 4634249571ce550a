// Authorities, certificates and revocation lists, made by the openssl command in a folder of their
// own.
#pragma once

#include <string>

#include "tests/support/TempDir.h"

namespace TestSupport {

struct CertificateWish {
  std::string name;                 // of its files: NAME.pem and NAME.key
  std::string subject = "/O=test";  // "/CN=switch"
  std::string alternatives;         // "URI:spiffe://lab/a,DNS:a.lab"; "": none
  std::string authority = "ca";     // who signs
  bool isExpired = false;
  bool isAuthority = false;
  bool isWeak = false;  // with a key that is too short
};

// Each step throws std::runtime_error, with openssl's words, where it fails.
class Certificates {
 public:
  Certificates() { authorityIs("ca"); }

  // One that signs itself.
  void authorityIs(const std::string& name);
  void certificateIs(const CertificateWish& wish);
  // Revokes it, and writes the new list of its authority into AUTHORITY.crl.
  void revoke(const std::string& name, const std::string& authority = "ca");
  void crlIs(const std::string& authority = "ca");

  std::string file(const std::string& name) const { return folder_.file(name); }
  std::string bytes(const std::string& name) const;
  void fileIs(const std::string& name, const std::string& bytes) const;

 private:
  void run(const std::string& command) const;

  TempDir folder_;
};

}  // namespace TestSupport
