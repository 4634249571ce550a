#include "PI/server/tls/LiveCertificates.h"

#include <ctime>
#include <exception>
#include <utility>

namespace pi::server {

LiveCertificates::LiveCertificates(CertificatePaths paths) : paths_(std::move(paths)) {
  current_ = {1, checkedCertificates(paths_, readCertificates(paths_))};
}

// The bytes are compared, not the times of files: a file that changes twice within a tick of the
// clock, or while it is read, is taken the next time.
LiveCertificates::Current LiveCertificates::refreshed() {
  const std::lock_guard reading(reading_);
  Current next = current();
  std::string refusal;
  try {
    CertificateBytes bytes = readCertificates(paths_);
    if (bytes != next.certificates->bytes) {
      next = {next.generation + 1, checkedCertificates(paths_, std::move(bytes))};
    }
  } catch (const std::exception& e) {
    refusal = e.what();
  }
  const std::lock_guard lock(mutex_);
  current_ = next;
  refusal_ = refusal;
  return next;
}

LiveCertificates::Current LiveCertificates::current() const {
  const std::lock_guard lock(mutex_);
  return current_;
}

std::string LiveCertificates::summary() const { return current().certificates->summary; }

std::string LiveCertificates::trouble() const {
  const std::lock_guard lock(mutex_);
  std::string text = refusal_;
  if (!text.empty()) text += "; the former certificates stay in force";
  for (const std::string& warning : current_.certificates->warnings(std::time(nullptr))) {
    text += (text.empty() ? "" : "\n") + warning;
  }
  return text;
}

}  // namespace pi::server
