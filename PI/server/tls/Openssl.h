// Owners of OpenSSL's objects, and how PEM becomes them.
#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace pi::server {

template <auto* function>
struct FreeWith {
  template <typename Object>
  void operator()(Object* object) const {
    function(object);
  }
};

using CertificatePtr = std::unique_ptr<X509, FreeWith<&X509_free>>;
using CrlPtr = std::unique_ptr<X509_CRL, FreeWith<&X509_CRL_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<&EVP_PKEY_free>>;

// All objects of the kind, in their order. Empty where one of them is broken.
std::vector<CertificatePtr> certificatesIn(std::string_view pem);
std::vector<CrlPtr> crlsIn(std::string_view pem);
// Null where it is broken or has a passphrase.
KeyPtr keyIn(std::string_view pem);

// Why a call of OpenSSL failed just now on this thread, in its words.
std::string lastOpensslError();

// "CN=switch-1, O=Example"
std::string nameText(const X509_NAME* name);
// "2026-11-22T20:00:00Z"
std::string timeText(const ASN1_TIME* time);

}  // namespace pi::server
