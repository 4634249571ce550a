// grpc.health.v1: whether the switch does its work, for load balancers and probes. Who may program
// the switch has no say here: anybody who reaches the server may ask.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "grpc/health/v1/health.grpc.pb.h"

namespace pi::server {

// What the process says of itself; not serving until it says so. Thread-safe.
class Health {
 public:
  struct Picture {
    bool serving = false;
    uint64_t wakes = 0;  // another number: look again
  };
  void servingIs(bool serving);
  void wake();  // ends the waits of now
  Picture picture() const;
  // Waits until the picture is another one, or for some time.
  Picture waitForOther(uint64_t wakes) const;

 private:
  mutable std::mutex mutex_;  // guards picture_
  mutable std::condition_variable changed_;
  Picture picture_;
};

// The process's: it outlives each of its servers.
Health& TheHealth();

class HealthService final : public grpc::health::v1::Health::Service {
 public:
  // Each takes a thread. Further ones get RESOURCE_EXHAUSTED.
  static constexpr size_t kMostWatches = 32;

  explicit HealthService(Health& health) : health_(health) {}

  using Request = grpc::health::v1::HealthCheckRequest;
  using Response = grpc::health::v1::HealthCheckResponse;
  grpc::Status Check(grpc::ServerContext* context, const Request* request,
                     Response* response) override;
  grpc::Status Watch(grpc::ServerContext* context, const Request* request,
                     grpc::ServerWriter<Response>* writer) override;

  void endWatches();  // from now on; they return at once

 private:
  grpc::Status watch(const grpc::ServerContext& context, const Request& request,
                     grpc::ServerWriter<Response>& writer);

  Health& health_;
  std::atomic<size_t> watches_{0};
  std::atomic<bool> ending_{false};
};

}  // namespace pi::server
