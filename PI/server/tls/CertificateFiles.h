// The files by which the server proves itself and verifies its clients: reads and checks them.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "PI/server/tls/Revocations.h"

namespace pi::server {

struct CertificatePaths {
  std::string certificate;  // PEM: the server's own, then its intermediates
  std::string key;          // PEM, without a passphrase
  std::string clientCa;     // PEM: those who sign clients' certificates, intermediates included
  std::string crl;          // PEM; "": none
  bool operator==(const CertificatePaths&) const = default;
};

// The bytes of the files, unchecked. Holds a secret: never to be printed.
struct CertificateBytes {
  std::string certificate;
  std::string key;
  std::string clientCa;
  std::string crl;
  bool operator==(const CertificateBytes&) const = default;
};

// Throws std::runtime_error with a line that names the file and a way out.
CertificateBytes readCertificates(const CertificatePaths& paths);

struct CheckedCertificates {
  struct Warning {
    std::time_t from;  // when it begins to hold
    std::string text;
  };
  CertificateBytes bytes;
  std::string summary;  // whose certificate it is, and until when, for people
  std::vector<Warning> allWarnings;
  Revocations revocations;

  std::vector<std::string> warnings(std::time_t now) const;
};

// Fails where gRPC or a handshake would: bytes that are no PEM, a key that does not belong to the
// certificate, a revocation list that nobody in clientCa signed. Certificates and lists that have
// run out are warnings: clients judge those of the server, and a list still counts. Throws
// std::runtime_error with a line that names the file and a way out, and never a byte of the key.
std::shared_ptr<const CheckedCertificates> checkedCertificates(const CertificatePaths& paths,
                                                               CertificateBytes bytes);

}  // namespace pi::server
