#include "PI/server/HealthService.h"

#include <chrono>
#include <optional>
#include <string>

#include "PI/core/PlainText.h"
#include "PI/proto/pi_server_process.h"

namespace pi::server {
namespace {

using grpc::Status;
using grpc::StatusCode;
using Response = HealthService::Response;

// A client that has gone is noticed so often.
constexpr std::chrono::milliseconds kLookPeriod{500};

bool isKnown(const std::string& service) { return service.empty() || service == "p4.v1.P4Runtime"; }

Response::ServingStatus statusOf(bool serving) {
  return serving ? Response::SERVING : Response::NOT_SERVING;
}

// A watch keeps the name for as long as its client likes.
constexpr size_t kMostNameBytes = 256;

bool isName(const std::string& service) { return service.size() <= kMostNameBytes; }

Status noName() {
  return {StatusCode::INVALID_ARGUMENT,
          "a service's name has at most " + std::to_string(kMostNameBytes) + " bytes"};
}

}  // namespace

void Health::servingIs(bool serving) {
  {
    const std::lock_guard lock(mutex_);
    if (picture_.serving == serving) return;
    picture_.serving = serving;
    ++picture_.wakes;
  }
  changed_.notify_all();
}

void Health::wake() {
  {
    const std::lock_guard lock(mutex_);
    ++picture_.wakes;
  }
  changed_.notify_all();
}

Health::Picture Health::picture() const {
  const std::lock_guard lock(mutex_);
  return picture_;
}

Health::Picture Health::waitForOther(uint64_t wakes) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, kLookPeriod, [&] { return picture_.wakes != wakes; });
  return picture_;
}

Health& TheHealth() {
  static Health* const health = new Health;  // threads may outlive static destruction
  return *health;
}

Status HealthService::Check(grpc::ServerContext* /*context*/, const Request* request,
                            Response* response) {
  if (!isName(request->service())) return noName();
  if (!isKnown(request->service())) {
    return {StatusCode::NOT_FOUND, "there is no service " + core::plainText(request->service()) +
                                       "; ask for p4.v1.P4Runtime, or for none"};
  }
  response->set_status(statusOf(health_.picture().serving));
  return Status::OK;
}

Status HealthService::Watch(grpc::ServerContext* context, const Request* request,
                            grpc::ServerWriter<Response>* writer) {
  if (!isName(request->service())) return noName();
  if (watches_.fetch_add(1) >= kMostWatches) {
    --watches_;
    return {StatusCode::RESOURCE_EXHAUSTED, "as many watches as there may be (" +
                                                std::to_string(kMostWatches) +
                                                "); use Check, or end other watches"};
  }
  const Status status = watch(*context, *request, *writer);
  --watches_;
  return status;
}

Status HealthService::watch(const grpc::ServerContext& context, const Request& request,
                            grpc::ServerWriter<Response>& writer) {
  std::optional<Response::ServingStatus> told;
  Health::Picture picture = health_.picture();
  while (!ending_ && !context.IsCancelled()) {
    Response response;
    response.set_status(isKnown(request.service()) ? statusOf(picture.serving)
                                                   : Response::SERVICE_UNKNOWN);
    if (told != response.status() && !writer.Write(response)) break;
    told = response.status();
    picture = health_.waitForOther(picture.wakes);
  }
  return {StatusCode::UNAVAILABLE, "the server ends"};
}

void HealthService::endWatches() {
  ending_ = true;
  health_.wake();
}

}  // namespace pi::server

void PIGrpcServerServingIs(int serving) { pi::server::TheHealth().servingIs(serving != 0); }
