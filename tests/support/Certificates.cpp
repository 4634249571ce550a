#include "tests/support/Certificates.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestSupport {
namespace {

const std::string newKey = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";

// What `openssl ca` wants to know beside its command line.
std::string configurationOf(const std::string& authority) {
  return "[ca]\ndefault_ca = all\n[all]\ndatabase = " + authority +
         ".index\nrand_serial = yes\nnew_certs_dir = .\ncertificate = " + authority +
         ".pem\nprivate_key = " + authority +
         ".key\ndefault_md = sha256\ndefault_days = 1\ndefault_crl_days = 1\nunique_subject = no\n"
         "copy_extensions = copy\npolicy = any\n"
         "[any]\ncommonName = optional\norganizationName = optional\n";
}

}  // namespace

void Certificates::run(const std::string& command) const {
  const std::string whole =
      "cd " + folder_.path() + " && openssl " + command + " > openssl.log 2>&1 < /dev/null";
  if (std::system(whole.c_str()) == 0) return;
  throw std::runtime_error("openssl " + command + ":\n" + bytes("openssl.log"));
}

std::string Certificates::bytes(const std::string& name) const {
  std::ifstream stream(file(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void Certificates::fileIs(const std::string& name, const std::string& bytes) const {
  std::ofstream(file(name), std::ios::binary) << bytes;
}

void Certificates::authorityIs(const std::string& name) {
  run("req -x509 " + newKey + "-days 1 -subj /CN=" + name + " -keyout " + name + ".key -out " +
      name + ".pem");
  fileIs(name + ".cnf", configurationOf(name));
  fileIs(name + ".index", "");
}

void Certificates::certificateIs(const CertificateWish& wish) {
  run("req -new " + (wish.isWeak ? "-newkey rsa:512 -nodes " : newKey) + "-subj '" + wish.subject +
      "' -keyout " + wish.name + ".key -out " + wish.name + ".csr" +
      (wish.alternatives.empty() ? "" : " -addext 'subjectAltName=" + wish.alternatives + "'") +
      (wish.isAuthority ? " -addext basicConstraints=critical,CA:true" : ""));
  run("ca -batch -notext -config " + wish.authority + ".cnf -in " + wish.name + ".csr -out " +
      wish.name + ".pem" +
      (wish.isExpired ? " -startdate 20200101000000Z -enddate 20200102000000Z" : ""));
  if (!wish.isAuthority) return;
  fileIs(wish.name + ".cnf", configurationOf(wish.name));
  fileIs(wish.name + ".index", "");
}

void Certificates::revoke(const std::string& name, const std::string& authority) {
  run("ca -config " + authority + ".cnf -revoke " + name + ".pem");
  crlIs(authority);
}

void Certificates::crlIs(const std::string& authority) {
  run("ca -config " + authority + ".cnf -gencrl -out " + authority + ".crl");
}

}  // namespace TestSupport
