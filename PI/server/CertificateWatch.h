// Reads the certificates' files once a second, so that operators learn of a fault before a client.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace pi::server {

class LiveCertificates;

class CertificateWatch {
 public:
  explicit CertificateWatch(std::shared_ptr<LiveCertificates> certificates);
  ~CertificateWatch();
  CertificateWatch(const CertificateWatch&) = delete;
  CertificateWatch& operator=(const CertificateWatch&) = delete;

 private:
  void run();

  const std::shared_ptr<LiveCertificates> certificates_;
  std::mutex mutex_;  // guards ended_
  std::condition_variable changed_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace pi::server
