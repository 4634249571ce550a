#include "PI/server/CertificateWatch.h"

#include <chrono>
#include <utility>

#include "PI/server/Thread.h"
#include "PI/server/tls/LiveCertificates.h"

namespace pi::server {
namespace {

constexpr std::chrono::seconds kPeriod{1};

}  // namespace

CertificateWatch::CertificateWatch(std::shared_ptr<LiveCertificates> certificates, Handler handler)
    : certificates_(std::move(certificates)),
      handler_(std::move(handler)),
      generation_(certificates_->current().generation),
      thread_(startThread([this] { run(); })) {}

CertificateWatch::~CertificateWatch() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void CertificateWatch::run() {
  std::unique_lock lock(mutex_);
  while (!changed_.wait_for(lock, kPeriod, [this] { return ended_; })) {
    lock.unlock();
    look();
    lock.lock();
  }
}

// Twice: a call that was judged by the former certificates may have been about to begin.
void CertificateWatch::look() {
  const LiveCertificates::Current now = certificates_->refreshed();
  if (now.generation != generation_) tells_ = 2;
  generation_ = now.generation;
  if (tells_ == 0) return;
  --tells_;
  handler_(*now.certificates);
}

}  // namespace pi::server
