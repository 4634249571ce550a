#include "PI/server/tls/OpensslServer.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <exception>
#include <memory>
#include <stdexcept>
#include <vector>

#include "PI/server/tls/Openssl.h"
#include "PI/server/tls/PeerNames.h"

namespace pi::server {
namespace {

using BioPtr = std::unique_ptr<BIO, FreeWith<&BIO_free>>;
using StorePtr = std::unique_ptr<X509_STORE, FreeWith<&X509_STORE_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, FreeWith<&GENERAL_NAMES_free>>;

void require(bool done, const char* step) {
  if (!done) throw std::runtime_error(std::string(step) + ": " + lastOpensslError());
}

void useOwn(SSL& connection, const CertificateBytes& bytes) {
  const std::vector<CertificatePtr> chain = certificatesIn(bytes.certificate);
  const KeyPtr key = keyIn(bytes.key);
  require(!chain.empty() && key, "the server's certificate");
  SSL_certs_clear(&connection);
  require(SSL_use_certificate(&connection, chain.front().get()) == 1, "the certificate");
  require(SSL_use_PrivateKey(&connection, key.get()) == 1, "the key");
  for (size_t i = 1; i < chain.size(); ++i) {
    require(SSL_add1_chain_cert(&connection, chain[i].get()) == 1, "an intermediate certificate");
  }
}

void useAuthorities(SSL& connection, const CertificateBytes& bytes) {
  const StorePtr store(X509_STORE_new());
  require(store != nullptr, "the authorities");
  for (const CertificatePtr& authority : certificatesIn(bytes.clientCa)) {
    require(X509_STORE_add_cert(store.get(), authority.get()) == 1, "an authority");
    require(SSL_add_client_CA(&connection, authority.get()) == 1, "an authority");
  }
  require(SSL_set1_verify_cert_store(&connection, store.get()) == 1, "the authorities");
}

// Called in the midst of a handshake: 1 to go on with it, 0 to refuse it. Nothing may be thrown
// through OpenSSL.
int chooseCertificates(SSL* connection, void* certificates) {
  try {
    const auto current = static_cast<LiveCertificates*>(certificates)->refreshed();
    useOwn(*connection, current.certificates->bytes);
    useAuthorities(*connection, current.certificates->bytes);
    return 1;
  } catch (const std::exception&) {
    ERR_clear_error();
    return 0;
  }
}

std::string textOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<size_t>(ASN1_STRING_length(string))};
}

PeerNames namesIn(const X509& certificate) {
  PeerNames names;
  const NamesPtr alternatives(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(alternatives.get()); ++i) {
    int kind = 0;
    const void* value =
        GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(alternatives.get(), i), &kind);
    if (kind == GEN_URI) names.uris.push_back(textOf(static_cast<const ASN1_STRING*>(value)));
    if (kind == GEN_DNS) names.dns.push_back(textOf(static_cast<const ASN1_STRING*>(value)));
  }
  const X509_NAME* subject = X509_get_subject_name(&certificate);
  for (int i = -1; (i = X509_NAME_get_index_by_NID(subject, NID_commonName, i)) >= 0;) {
    names.common.push_back(textOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))));
  }
  return names;
}

std::string pemOf(X509* certificate) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1) return "";
  char* bytes = nullptr;
  const auto size = static_cast<size_t>(BIO_get_mem_data(bio.get(), &bytes));
  return {bytes, size};
}

}  // namespace

void serveTls(SSL_CTX& context, LiveCertificates& certificates) {
  SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION);
  // A session that is taken up again would bring no certificate to look at.
  SSL_CTX_set_options(&context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(&context, 0);
  SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_cb(&context, &chooseCertificates, &certificates);
}

TlsClient tlsClientOf(const SSL& connection, LiveCertificates& certificates) {
  const CertificatePtr own(SSL_get1_peer_certificate(&connection));
  if (!own) return {"", "the client has no certificate"};
  const PeerNames names = namesIn(*own);
  std::string objection = objectionTo(names);
  if (objection.empty()) {
    std::string chain;
    const STACK_OF(X509)* verified = SSL_get0_verified_chain(&connection);
    for (int i = 1; i < sk_X509_num(verified); ++i) chain += pemOf(sk_X509_value(verified, i));
    objection =
        certificates.refreshed().certificates->revocations.objection(pemOf(own.get()), chain);
  }
  return {identityOf(names), objection};
}

}  // namespace pi::server
