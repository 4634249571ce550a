// Reads the certificates' files once a second, so that operators learn of a fault before a client,
// and revoked clients lose their streams.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace pi::server {

class LiveCertificates;
struct CheckedCertificates;

class CertificateWatch {
 public:
  // Hears of certificates that have come into force; on the watch's thread.
  using Handler = std::function<void(const CheckedCertificates& certificates)>;
  CertificateWatch(std::shared_ptr<LiveCertificates> certificates, Handler handler);
  ~CertificateWatch();
  CertificateWatch(const CertificateWatch&) = delete;
  CertificateWatch& operator=(const CertificateWatch&) = delete;

 private:
  void run();
  void look();

  const std::shared_ptr<LiveCertificates> certificates_;
  const Handler handler_;
  uint64_t generation_;  // that the handler has last heard of
  int tells_ = 0;        // that are to come
  std::mutex mutex_;     // guards ended_
  std::condition_variable changed_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace pi::server
