// The switch that a journal is replayed to, as its primary controller.
#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "p4/v1/p4runtime.grpc.pb.h"

namespace Cli {

struct TargetOptions {
  std::string address = "127.0.0.1:9559";
  uint64_t deviceId = 0;
  std::string role;
  uint64_t electionId = 1;
  std::string ca, certificate, key;  // files in PEM; no ca: without TLS
  // For a pipeline to run that the switch has not refused.
  std::chrono::milliseconds patienceForPipeline{120'000};
};

// Used by one thread. All throw std::runtime_error, with the switch's reason, when a call fails as
// a whole. Texts of the switch are made plain lines.
class ReplayTarget {
 public:
  using Config = p4::v1::ForwardingPipelineConfig;

  // Becomes primary.
  explicit ReplayTarget(TargetOptions options);
  ~ReplayTarget();
  ReplayTarget(const ReplayTarget&) = delete;
  ReplayTarget& operator=(const ReplayTarget&) = delete;

  bool hasPipeline();
  // Also waits for a pipeline of which the switch says UNAVAILABLE, and which it runs later.
  void push(p4::v1::SetForwardingPipelineConfigRequest::Action action, const Config& config);
  // Empty when all was done, else one an update.
  std::vector<p4::v1::Error> write(p4::v1::WriteRequest& request);

 private:
  using Get = p4::v1::GetForwardingPipelineConfigRequest;

  void becomePrimary();
  grpc::Status get(Get::ResponseType parts, Config* config);
  bool runs(const Config& config);
  bool comesUp(const Config& config);
  template <typename Request>
  void complete(Request* request) const;

  const TargetOptions options_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  grpc::ClientContext streamContext_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
  std::thread reader_;  // of the stream: a client must take what is sent
};

}  // namespace Cli
