// Tells the journal of a call that writes, if there is one.
#pragma once

#include <grpcpp/server_context.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/slice.h>

#include <vector>

#include "PI/proto/pi_server_journal.h"
#include "PI/server/Peer.h"
#include "google/rpc/status.pb.h"

namespace pi::server {

// Whether requests are to be kept until their call has begun.
bool isJournaled();

// On the stack of its call.
class CallJournal {
 public:
  // `request`: as it came; empty where no journal wanted it. Takes its bytes.
  CallJournal(PIGrpcServerJournalKind_t kind, const grpc::ServerContext& context,
              grpc::ByteBuffer& request);
  ~CallJournal();  // with INTERNAL, unless end() was called
  CallJournal(const CallJournal&) = delete;
  CallJournal& operator=(const CallJournal&) = delete;

  // When the call's turn has come: takes as long as a copy of the bytes. Later ones change nothing.
  void begin();
  // `status` has one p4.v1.Error an update in its details, or none. Nothing unless it has begun.
  void end(const google::rpc::Status& status);

 private:
  const PIGrpcServerJournalKind_t kind_;
  const PIGrpcServerJournal_t* journal_ = nullptr;  // null: none, or it has ended
  Peer peer_;
  std::vector<grpc::Slice> request_;
  bool hasBegun_ = false;
  void* call_ = nullptr;
};

}  // namespace pi::server
