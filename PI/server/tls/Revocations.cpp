#include "PI/server/tls/Revocations.h"

#include <openssl/x509.h>

#include <algorithm>

namespace pi::server {

std::string Revocations::objection(std::string_view certificate, std::string_view chain) const {
  if (empty()) return "";
  std::vector<CertificatePtr> all = certificatesIn(certificate);
  if (all.empty()) return "the client's certificate cannot be read";
  // A resumed session brings no chain: a revoked intermediate would go unseen.
  if (chain.empty() && !hasListOf(X509_get_issuer_name(all.front().get()))) {
    return "the issuer of the client's certificate is not known here; connect with a new session";
  }
  for (CertificatePtr& above : certificatesIn(chain)) all.push_back(std::move(above));
  for (const CertificatePtr& one : all) {
    if (isRevoked(*one)) {
      return "the certificate " + nameText(X509_get_subject_name(one.get())) +
             " has been revoked; use another one";
    }
  }
  return "";
}

bool Revocations::isRevoked(X509& certificate) const {
  return std::any_of(lists_.begin(), lists_.end(), [&](const CrlPtr& list) {
    X509_REVOKED* entry = nullptr;
    return X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(&certificate)) ==
               0 &&
           X509_CRL_get0_by_cert(list.get(), &entry, &certificate) == 1;
  });
}

bool Revocations::hasListOf(const X509_NAME* issuer) const {
  return std::any_of(lists_.begin(), lists_.end(), [&](const CrlPtr& list) {
    return X509_NAME_cmp(X509_CRL_get_issuer(list.get()), issuer) == 0;
  });
}

}  // namespace pi::server
