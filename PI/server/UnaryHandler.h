// Runs calls with one request and one answer, as the generated service does, and watches that the
// client takes the answer: gRPC's thread waits for it.
#pragma once

#include <grpc/grpc.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/method_handler.h>

#include <optional>
#include <utility>

#include "PI/frontends/proto/write_statistics.h"
#include "PI/server/CallPlaces.h"
#include "PI/server/ReceivedMessage.h"
#include "PI/server/SendDeadlines.h"

namespace pi::server {

// One call: its context, its request as it came, and the place that it holds until its answer is
// sent.
struct UnaryCall {
  grpc::ServerContext& context;
  grpc::ByteBuffer* request;  // null: it could not be received
  std::optional<CallPlaces::Place> place;
};

// Serve: grpc::Status(UnaryCall&, const ReceivedMessage&, Response*), throws nothing.
template <typename Response, typename Serve>
class UnaryHandler final : public grpc::internal::MethodHandler {
 public:
  // `deadlines` outlives the object.
  UnaryHandler(SendDeadlines& deadlines, CallKind kind, Serve serve)
      : deadlines_(deadlines), kind_(kind), serve_(std::move(serve)) {}

  void RunHandler(const HandlerParameter& param) override {
    UnaryCall call{static_cast<grpc::ServerContext&>(*param.server_context), nullptr, std::nullopt};
    Response response;
    grpc::Status status = param.status;
    if (status.ok()) {
      auto* const received = static_cast<ReceivedMessage*>(param.request);
      call.request = &received->bytes;
      status = serve_(call, *received, &response);
      received->~ReceivedMessage();
    }
    const SendDeadlines::Sending sending(deadlines_, call.context, kind_);
    std::optional<fe::proto::StageTimer> answering;
    if (kind_ == CallKind::write) {
      answering.emplace(fe::proto::WriteStage::answer);
      fe::proto::writeStatistics().countWrite(status.error_code());
    }
    grpc::internal::UnaryRunHandlerHelper(param, &response, status);
  }

  void* Deserialize(grpc_call* call, grpc_byte_buffer* bytes, grpc::Status* status,
                    void** /*handlerData*/) override {
    void* const room = grpc_call_arena_alloc(call, sizeof(ReceivedMessage));
    return grpc::internal::UnaryDeserializeHelper(bytes, status, new (room) ReceivedMessage);
  }

 private:
  SendDeadlines& deadlines_;
  const CallKind kind_;
  const Serve serve_;
};

}  // namespace pi::server
