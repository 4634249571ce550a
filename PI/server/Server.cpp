#include "PI/server/Server.h"

#include <grpcpp/grpcpp.h>

#include <stdexcept>
#include <utility>

#include "PI/server/ListenAddress.h"
#include "PI/server/P4RuntimeService.h"

namespace pi::server {
namespace {

constexpr int kMaxMessageBytes = 256 << 20;
constexpr std::chrono::milliseconds kStreamGrace{500};

// Finds dead controllers, and bears with clients that ping as often as they like.
void keepAliveIs(grpc::ServerBuilder& builder) {
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, 20'000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 10'000);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PING_STRIKES, 0);
}

void threadsAre(grpc::ServerBuilder& builder) {
  using Option = grpc::ServerBuilder::SyncServerOption;
  builder.SetSyncServerOption(Option::NUM_CQS, 1);
  builder.SetSyncServerOption(Option::MIN_POLLERS, 1);
  builder.SetSyncServerOption(Option::MAX_POLLERS, 4);
}

}  // namespace

Server::Server(const std::string& address, std::shared_ptr<grpc::ServerCredentials> credentials,
               const std::string& localToken)
    : service_(std::make_unique<P4RuntimeService>(TheArbitration(), localToken)) {
  const std::string obstacle = listenObstacle(address);
  if (!obstacle.empty()) throw std::runtime_error(obstacle);
  grpc::ServerBuilder builder;
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);  // a port in use is an error
  builder.AddListeningPort(address, std::move(credentials), &port_);
  builder.SetMaxReceiveMessageSize(kMaxMessageBytes);
  builder.SetMaxSendMessageSize(kMaxMessageBytes);
  keepAliveIs(builder);
  threadsAre(builder);
  builder.RegisterService(service_.get());
  server_ = builder.BuildAndStart();
  if (!server_) {
    throw std::runtime_error("cannot listen on " + address +
                             ": gRPC refused the address or the certificates; check both");
  }
}

Server::~Server() {
  if (closing_.joinable()) closing_.join();
}

void Server::shutDown(std::chrono::milliseconds cancelAfter, std::chrono::milliseconds patience) {
  begin(cancelAfter);
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [this] { return down_; });
}

// On a thread of its own, because gRPC waits for calls that cannot be cancelled.
void Server::begin(std::chrono::milliseconds cancelAfter) {
  const std::lock_guard lock(mutex_);
  if (closing_.joinable()) return;
  closing_ = std::thread([this, cancelAfter] {
    std::thread streams([this] { service_->streams().endAll(kStreamGrace); });
    server_->Shutdown(std::chrono::system_clock::now() + cancelAfter);
    streams.join();
    const std::lock_guard lock(mutex_);
    down_ = true;
    changed_.notify_all();
  });
}

void Server::wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return down_; });
}

void Server::devicesDelAll() { service_->devicesDelAll(); }

}  // namespace pi::server
