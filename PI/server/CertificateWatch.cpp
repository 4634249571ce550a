#include "PI/server/CertificateWatch.h"

#include <chrono>
#include <utility>

#include "PI/server/Thread.h"
#include "PI/server/tls/LiveCertificates.h"

namespace pi::server {
namespace {

constexpr std::chrono::seconds kPeriod{1};

}  // namespace

CertificateWatch::CertificateWatch(std::shared_ptr<LiveCertificates> certificates)
    : certificates_(std::move(certificates)), thread_(startThread([this] { run(); })) {}

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
    certificates_->refreshed();
    lock.lock();
  }
}

}  // namespace pi::server
