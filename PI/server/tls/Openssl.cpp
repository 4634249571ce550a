#include "PI/server/tls/Openssl.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <ctime>

namespace pi::server {
namespace {

using BioPtr = std::unique_ptr<BIO, FreeWith<&BIO_free>>;

BioPtr reading(std::string_view bytes) {
  return BioPtr(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

// OpenSSL would ask at the terminal for the passphrase of a key.
int noPassphrase(char*, int, int, void*) { return -1; }

// Whether reading stopped only because nothing more is there.
bool endedWell() {
  const unsigned long error = ERR_peek_last_error();
  ERR_clear_error();
  return error == 0 ||
         (ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE);
}

template <typename Pointer, typename Read>
std::vector<Pointer> allIn(std::string_view pem, Read read) {
  ERR_clear_error();
  const BioPtr bio = reading(pem);
  std::vector<Pointer> all;
  while (bio) {
    Pointer one(read(bio.get(), nullptr, &noPassphrase, nullptr));
    if (!one) break;
    all.push_back(std::move(one));
  }
  if (!endedWell()) all.clear();
  return all;
}

}  // namespace

std::vector<CertificatePtr> certificatesIn(std::string_view pem) {
  return allIn<CertificatePtr>(pem, &PEM_read_bio_X509);
}

std::vector<CrlPtr> crlsIn(std::string_view pem) {
  return allIn<CrlPtr>(pem, &PEM_read_bio_X509_CRL);
}

KeyPtr keyIn(std::string_view pem) {
  const BioPtr bio = reading(pem);
  KeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, &noPassphrase, nullptr) : nullptr);
  ERR_clear_error();
  return key;
}

std::string lastOpensslError() {
  const char* const text = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  return text ? text : "no reason given";
}

std::string nameText(const X509_NAME* name) {
  const BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) return "";
  X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ);
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
}

std::string timeText(const ASN1_TIME* time) {
  std::tm parts{};
  std::array<char, 32> text{};
  if (!time || ASN1_TIME_to_tm(time, &parts) != 1) return "an unknown time";
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

}  // namespace pi::server
