// The certificates in force: follows their files, and keeps the former ones where new ones are bad.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "PI/server/tls/CertificateFiles.h"

namespace pi::server {

// Thread-safe.
class LiveCertificates {
 public:
  // Throws std::runtime_error, as checkedCertificates() does.
  explicit LiveCertificates(CertificatePaths paths);

  const CertificatePaths& paths() const { return paths_; }

  struct Current {
    uint64_t generation = 0;  // rises with each change
    std::shared_ptr<const CheckedCertificates> certificates;
  };
  // Reads the files first, and takes them if they are good.
  Current refreshed();
  // As they were at the last reading; costs a lock.
  Current current() const;

  // For people. The trouble says why files that have changed are not in force, and warnings; empty
  // when all is well.
  std::string summary() const;
  std::string trouble() const;

 private:
  const CertificatePaths paths_;
  std::mutex reading_;        // one at a time; files may be slow
  mutable std::mutex mutex_;  // guards the members below
  Current current_;
  std::string refusal_;  // why the files are not in force
};

}  // namespace pi::server
