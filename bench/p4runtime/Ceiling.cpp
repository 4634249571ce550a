// See Ceiling.h.
#include "bench/p4runtime/Ceiling.h"

#include <grpcpp/grpcpp.h>

#include <cstdio>

#include "p4/v1/p4runtime.grpc.pb.h"

namespace Bench {
namespace {

class EmptyHandler final : public p4::v1::P4Runtime::Service {
 public:
  grpc::Status Write(grpc::ServerContext*, const p4::v1::WriteRequest*,
                     p4::v1::WriteResponse*) override {
    return grpc::Status::OK;
  }

  // Returns the query itself, which is as long as the entry it asks for, but for the action.
  grpc::Status Read(grpc::ServerContext*, const p4::v1::ReadRequest* request,
                    grpc::ServerWriter<p4::v1::ReadResponse>* writer) override {
    p4::v1::ReadResponse response;
    *response.mutable_entities() = request->entities();
    writer->Write(response);
    return grpc::Status::OK;
  }

  grpc::Status StreamChannel(
      grpc::ServerContext*,
      grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, p4::v1::StreamMessageRequest>* stream)
      override {
    p4::v1::StreamMessageRequest request;
    while (stream->Read(&request)) {
      p4::v1::StreamMessageResponse response;
      *response.mutable_arbitration() = request.arbitration();
      stream->Write(response);
    }
    return grpc::Status::OK;
  }
};

// As in PI/server/Server.cpp, so that the two differ only behind the service.
void settingsAre(grpc::ServerBuilder& builder) {
  using Option = grpc::ServerBuilder::SyncServerOption;
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  builder.SetMaxReceiveMessageSize(256 << 20);
  builder.SetMaxSendMessageSize(256 << 20);
  builder.SetSyncServerOption(Option::NUM_CQS, 1);
  builder.SetSyncServerOption(Option::MIN_POLLERS, 1);
  builder.SetSyncServerOption(Option::MAX_POLLERS, 4);
}

}  // namespace

int serveCeiling(const std::string& address) {
  EmptyHandler handler;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  settingsAre(builder);
  builder.RegisterService(&handler);
  const auto server = builder.BuildAndStart();
  if (!server) {
    std::fprintf(stderr, "korvel-bench: cannot listen on %s\n", address.c_str());
    return 1;
  }
  server->Wait();
  return 0;
}

}  // namespace Bench
