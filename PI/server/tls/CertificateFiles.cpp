#include "PI/server/tls/CertificateFiles.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace pi::server {
namespace {

constexpr size_t kMostBytes = 64 << 20;  // a long revocation list

[[noreturn]] void refuse(const char* what, const std::string& path, const std::string& why) {
  throw std::runtime_error(std::string(what) + " " + path + ": " + why);
}

struct File {
  explicit File(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~File() {
    if (fd >= 0) close(fd);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  const int fd;
};

[[noreturn]] void refuseUnreadable(const char* what, const std::string& path) {
  const int error = errno;
  refuse(what, path,
         std::generic_category().message(error) +
             (error == EACCES ? "; let the agent's user read it" : "; put the file there"));
}

std::string bytesOf(const char* what, const std::string& path) {
  const File file(path);
  if (file.fd < 0) refuseUnreadable(what, path);
  struct stat status {};
  if (fstat(file.fd, &status) != 0) refuseUnreadable(what, path);
  if (!S_ISREG(status.st_mode)) refuse(what, path, "not a regular file; name a PEM file");
  std::string bytes;
  char buffer[16384];
  ssize_t got = 0;
  while ((got = read(file.fd, buffer, sizeof buffer)) > 0) {
    bytes.append(buffer, static_cast<size_t>(got));
    if (bytes.size() > kMostBytes) refuse(what, path, "longer than 64 MiB; name a PEM file");
  }
  if (got < 0) refuseUnreadable(what, path);
  return bytes;
}

bool othersMayRead(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IROTH | S_IWOTH)) != 0;
}

// A list may have no end.
std::time_t timeOf(const ASN1_TIME* time) {
  std::tm parts{};
  const bool isTime = time && ASN1_TIME_to_tm(time, &parts) == 1;
  return isTime ? timegm(&parts) : std::numeric_limits<std::time_t>::max();
}

bool isSigned(const std::vector<CertificatePtr>& authorities, X509_CRL& list) {
  return std::any_of(authorities.begin(), authorities.end(), [&](const CertificatePtr& one) {
    return X509_NAME_cmp(X509_get_subject_name(one.get()), X509_CRL_get_issuer(&list)) == 0 &&
           X509_CRL_verify(&list, X509_get0_pubkey(one.get())) == 1;
  });
}

// Checks the files one by one, and fills `checked`.
class Check {
 public:
  Check(const CertificatePaths& paths, CheckedCertificates& checked)
      : paths_(paths), checked_(checked) {}

  void run() {
    checkOwn();
    checkClientCa();
    checkCrl();
  }

 private:
  void warn(std::time_t from, std::string text) {
    checked_.allWarnings.push_back({from, std::move(text)});
  }
  void warnFromThen(const ASN1_TIME* end, const std::string& file, const std::string& wayOut) {
    warn(timeOf(end), file + " ran out at " + timeText(end) + wayOut);
  }

  void checkOwn() {
    const auto own = certificatesIn(checked_.bytes.certificate);
    if (own.empty()) refuse("certificate", paths_.certificate, "no certificate in PEM");
    const KeyPtr key = keyIn(checked_.bytes.key);
    if (!key) refuse("key", paths_.key, "no private key in PEM without a passphrase");
    X509* const first = own.front().get();
    if (X509_check_private_key(first, key.get()) != 1) {
      refuse("key", paths_.key, "does not belong to the certificate " + paths_.certificate);
    }
    requireUsable(own, *key);
    checked_.summary =
        nameText(X509_get_subject_name(first)) + ", until " + timeText(X509_get0_notAfter(first));
    warnFromThen(X509_get0_notAfter(first), "certificate " + paths_.certificate, "; renew it");
    if (othersMayRead(paths_.key)) {
      warn(0, "key " + paths_.key + " is open to every user of the machine; chmod 600 it");
    }
  }

  // As gRPC uses them: OpenSSL takes no key that is too short.
  void requireUsable(const std::vector<CertificatePtr>& own, EVP_PKEY& key) {
    const std::unique_ptr<SSL_CTX, FreeWith<&SSL_CTX_free>> context(
        SSL_CTX_new(TLS_server_method()));
    bool isUsable = context && SSL_CTX_use_certificate(context.get(), own.front().get()) == 1 &&
                    SSL_CTX_use_PrivateKey(context.get(), &key) == 1;
    for (size_t i = 1; isUsable && i < own.size(); ++i) {
      isUsable = SSL_CTX_add1_chain_cert(context.get(), own[i].get()) == 1;
    }
    if (isUsable) return;
    const std::string reason = lastOpensslError();
    refuse("certificate", paths_.certificate,
           "TLS cannot use it (" + reason + "); make another key and certificate");
  }

  void checkClientCa() {
    authorities_ = certificatesIn(checked_.bytes.clientCa);
    if (authorities_.empty()) refuse("clientCa", paths_.clientCa, "no certificate in PEM");
    for (const CertificatePtr& one : authorities_) {
      warnFromThen(
          X509_get0_notAfter(one.get()),
          "clientCa " + paths_.clientCa + ": " + nameText(X509_get_subject_name(one.get())),
          "; its clients get in no more");
    }
  }

  void checkCrl() {
    if (paths_.crl.empty()) return;
    auto lists = crlsIn(checked_.bytes.crl);
    if (lists.empty()) refuse("crl", paths_.crl, "no revocation list in PEM");
    for (const CrlPtr& list : lists) {
      const std::string issuer = nameText(X509_CRL_get_issuer(list.get()));
      if (!isSigned(authorities_, *list)) {
        refuse("crl", paths_.crl,
               "nobody in clientCa has signed the list of " + issuer + "; add its certificate");
      }
      warnFromThen(X509_CRL_get0_nextUpdate(list.get()),
                   "crl " + paths_.crl + ": the list of " + issuer, "; it still counts, renew it");
    }
    checked_.revocations = Revocations(std::move(lists));
  }

  const CertificatePaths& paths_;
  CheckedCertificates& checked_;
  std::vector<CertificatePtr> authorities_;
};

}  // namespace

std::vector<std::string> CheckedCertificates::warnings(std::time_t now) const {
  std::vector<std::string> all;
  for (const Warning& warning : allWarnings) {
    if (warning.from < now) all.push_back(warning.text);
  }
  return all;
}

CertificateBytes readCertificates(const CertificatePaths& paths) {
  return {.certificate = bytesOf("certificate", paths.certificate),
          .key = bytesOf("key", paths.key),
          .clientCa = bytesOf("clientCa", paths.clientCa),
          .crl = paths.crl.empty() ? "" : bytesOf("crl", paths.crl)};
}

std::shared_ptr<const CheckedCertificates> checkedCertificates(const CertificatePaths& paths,
                                                               CertificateBytes bytes) {
  auto checked = std::make_shared<CheckedCertificates>();
  checked->bytes = std::move(bytes);
  Check(paths, *checked).run();
  return checked;
}

}  // namespace pi::server
