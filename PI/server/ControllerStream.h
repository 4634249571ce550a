// One StreamChannel call: reads the controller's messages on the call's own thread, and sends the
// queued ones on another, so that neither a slow nor a silent controller holds up anyone.
#pragma once

#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/sync_stream.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "PI/core/PacketCounts.h"
#include "PI/server/Arbitration.h"
#include "PI/server/CallerAccess.h"
#include "PI/server/Devices.h"
#include "PI/server/OutgoingQueue.h"
#include "PI/server/Peer.h"
#include "PI/server/ReceivedMessage.h"
#include "PI/server/StreamSet.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::server {

class Revocations;

class ControllerStream : public ArbitrationClient {
 public:
  using Request = StreamedMessage<p4::v1::StreamMessageRequest>;
  using Call = grpc::ServerReaderWriter<p4::v1::StreamMessageResponse, Request>;

  // The controller: who it has proved to be, and what it may do now, null for everything.
  struct Who {
    std::string identity;
    PeerCertificate certificate;
    std::function<std::unique_ptr<CallerAccess>()> access;
  };

  // The references outlive the object; context and call belong to the running RPC.
  ControllerStream(grpc::ServerContext& context, Call& call, Arbitration& arbitration,
                   Devices& devices, StreamSet& streams, Who who)
      : context_(context),
        call_(call),
        arbitration_(arbitration),
        devices_(devices),
        streams_(streams),
        who_(std::move(who)),
        origin_{context.peer(), std::chrono::system_clock::now()},
        queue_(streams.outgoing()) {}

  // Serves the stream until the controller, an arbitration update that ends it, or cancel() does.
  grpc::Status run();

  void arbitrationNoticeIs(const ArbitrationNotice& notice) override;
  // For the role's primary: a message of the device, shared with other streams. Dropped when the
  // controller is too slow; packets are counted either way.
  void messageIs(OutgoingQueue::Message message, size_t bytes);

  void displaced(const std::string& reason) override;
  const std::string& identity() const override { return who_.identity; }
  const StreamOrigin& origin() const override { return origin_; }

  // Whether the controller may have the message of the device, by policy and the configs of roles.
  // Any thread, once the stream is a client of the arbitration.
  bool mayHear(const p4::v1::StreamMessageResponse& message);
  // For a policy that has changed: OK, or why the stream's place in its role must end.
  grpc::Status requireItsPlace();
  // For certificates that have been revoked since it began. Any thread.
  grpc::Status requireItsCertificate(const Revocations& revocations) const;

  // Has the queued messages sent, then the call cancelled; waits for neither.
  void finish();
  // The same after an error that says why.
  void endWith(grpc::StatusCode code, const std::string& reason);
  void cancel();

 private:
  struct Standing;

  grpc::Status readToEnd();
  grpc::Status requireUnended();
  void writeToEnd();
  void awaitWriter();

  // Each returns OK, or the status with which the stream ends.
  grpc::Status handle(const p4::v1::StreamMessageRequest& request);
  grpc::Status accountedArbitration(const p4::v1::MasterArbitrationUpdate& update);
  grpc::Status handleArbitration(const p4::v1::MasterArbitrationUpdate& update);
  void handleForDevice(const p4::v1::StreamMessageRequest& request);
  grpc::Status requireRight(const p4::v1::StreamMessageRequest& request);
  grpc::Status requirePlace(const RoleOfDevice& role, bool takesPart);
  grpc::Status requireWritable(const RoleConfig& config);
  // Null: it may do everything.
  std::shared_ptr<const Standing> standing();
  void countNotPrimary();
  void countOut(grpc::StatusCode code);
  void account(const p4::v1::StreamMessageRequest& request, const grpc::Status& status) const;
  void report(const p4::v1::StreamMessageRequest& request, grpc::StatusCode code,
              const std::string& message);

  grpc::ServerContext& context_;
  Call& call_;
  Arbitration& arbitration_;
  Devices& devices_;
  StreamSet& streams_;
  const Who who_;
  const StreamOrigin origin_;
  OutgoingQueue queue_;

  // Written once, before the stream is a client of the arbitration.
  std::optional<RoleOfDevice> role_;
  std::optional<p4::v1::Role> roleAsGiven_;
  uint64_t deviceIdAsGiven_ = 0;
  core::PacketCounts* packetCounts_ = nullptr;  // of the role's device

  // The place that the stream has, or asks for.
  struct Place {
    RoleOfDevice role;
    bool takesPart = false;  // in the election
  };
  // What it may do there. Packets are many, and so decided once.
  struct Standing {
    std::unique_ptr<CallerAccess> access;
    bool getsPackets = false;
    grpc::Status sendsPackets;
  };
  std::mutex accessMutex_;  // guards the two below; locks of look-ups are taken under it
  std::optional<Place> place_;
  std::shared_ptr<const Standing> standing_;  // in place_; null: none is known yet

  std::mutex mutex_;  // guards finishing_ and written_
  std::condition_variable changed_;
  bool finishing_ = false;
  bool written_ = false;
};

}  // namespace pi::server
