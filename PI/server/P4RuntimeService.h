// The p4.v1.P4Runtime service: checks the sender of a request, and hands it to the device.
#pragma once

#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/impl/rpc_service_method.h>
#include <grpcpp/impl/service_type.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/sync_stream.h>

#include <memory>
#include <string>

#include "PI/server/Admission.h"
#include "PI/server/Arbitration.h"
#include "PI/server/CallPlaces.h"
#include "PI/server/CallerAccess.h"
#include "PI/server/Devices.h"
#include "PI/server/ReceivedMessage.h"
#include "PI/server/SendDeadlines.h"
#include "PI/server/StreamSet.h"
#include "PI/server/UnaryHandler.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::server {

class WriteMessage;

class P4RuntimeService final : public grpc::Service {
 public:
  // The arbitration outlives the object. A client that presents the token installs pipelines
  // without arbitration.
  P4RuntimeService(Arbitration& arbitration, std::string localToken);

  StreamSet& streams() { return streams_; }
  // Once no call runs any more.
  void devicesDelAll() { devices_.pipelineDelAll(); }

 private:
  using StreamRequest = StreamedMessage<p4::v1::StreamMessageRequest>;
  using DeviceMgr = pi::fe::proto::DeviceMgr;

  template <typename Handler>
  void methodIs(const char* name, grpc::internal::RpcMethod::RpcType type, Handler* handler);
  template <typename Request, typename Response, typename Serve>
  void unaryMethodIs(const char* name, CallKind kind, size_t maxBytes, Serve serve);
  void methodsAre();
  // Parses the request and serves it, unless it is too large or there is no memory for it.
  template <typename Request, typename Serve>
  grpc::Status served(const grpc::ServerContext& context, const char* path,
                      const ReceivedMessage& received, size_t maxBytes, Serve serve);

  // `access`: null when the caller may do everything.
  using AccessPtr = std::unique_ptr<CallerAccess>;
  AccessPtr accessOf(const grpc::ServerContext& context);
  grpc::Status write(UnaryCall& call, const WriteMessage& received, const AccessPtr& access);
  using Clock = std::chrono::steady_clock;
  google::rpc::Status stillWanted(const grpc::ServerContext& context,
                                  const p4::v1::WriteRequest& request,
                                  Clock::time_point came) const;
  grpc::Status read(grpc::ServerContext& context, const p4::v1::ReadRequest& request,
                    grpc::ServerWriter<p4::v1::ReadResponse>& writer, const AccessPtr& access);
  grpc::Status setPipeline(UnaryCall& call,
                           const p4::v1::SetForwardingPipelineConfigRequest& request,
                           const AccessPtr& access);
  grpc::Status getPipeline(UnaryCall& call,
                           const p4::v1::GetForwardingPipelineConfigRequest& request,
                           p4::v1::GetForwardingPipelineConfigResponse* response);
  grpc::Status streamChannel(
      grpc::ServerContext& context,
      grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, StreamRequest>& call);
  grpc::Status capabilities(UnaryCall& call, const p4::v1::CapabilitiesRequest& request,
                            p4::v1::CapabilitiesResponse* response);

  // Of the device that the request's device id stands for.
  template <typename Request>
  RoleOfDevice servedRole(const Request& request) const;
  grpc::Status takeOther(UnaryCall& call);
  bool hasLocalToken(const grpc::ServerContext& context) const;
  grpc::Status requirePipeline(uint64_t deviceId, std::shared_ptr<DeviceMgr>* device) const;
  void toPrimaries(uint64_t deviceId, p4::v1::StreamMessageResponse&& response);

  Arbitration& arbitration_;
  const std::string localToken_;
  Devices devices_;
  RightsCache rights_;
  StreamSet streams_;
  SendDeadlines sendDeadlines_;
  Admission requestBytes_;
  CallPlaces reads_{CallKind::read, "Reads", sendDeadlines_};
  CallPlaces writes_{CallKind::write, "Writes", sendDeadlines_};
  CallPlaces others_{CallKind::other, "calls that are neither Write nor Read", sendDeadlines_};
};

}  // namespace pi::server
