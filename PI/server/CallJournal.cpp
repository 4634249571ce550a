#include "PI/server/CallJournal.h"

#include <atomic>
#include <utility>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::server {
namespace {

constexpr int kInternal = 13;

std::atomic<const PIGrpcServerJournal_t*> journalNow{nullptr};

// Of the updates that failed.
std::vector<p4::v1::Error> errorsOf(const google::rpc::Status& status) {
  std::vector<p4::v1::Error> errors;
  errors.reserve(static_cast<size_t>(status.details_size()));
  for (const auto& detail : status.details()) detail.UnpackTo(&errors.emplace_back());
  return errors;
}

std::vector<PIGrpcServerJournalFailure_t> failuresOf(const std::vector<p4::v1::Error>& errors) {
  std::vector<PIGrpcServerJournalFailure_t> failures;
  for (size_t i = 0; i < errors.size(); ++i) {
    if (errors[i].canonical_code() == 0) continue;
    failures.push_back({.index = static_cast<uint32_t>(i),
                        .code = errors[i].canonical_code(),
                        .message = {errors[i].message().data(), errors[i].message().size()}});
  }
  return failures;
}

}  // namespace

bool isJournaled() { return journalNow.load(std::memory_order_relaxed) != nullptr; }

CallJournal::CallJournal(PIGrpcServerJournalKind_t kind, const grpc::ServerContext& context,
                         grpc::ByteBuffer& request)
    : kind_(kind) {
  if (!request.Valid()) return;
  if (request.Dump(&request_).ok()) journal_ = journalNow.load();
  if (journal_ != nullptr) peer_ = peerOf(context);
  request.Clear();
}

CallJournal::~CallJournal() {
  google::rpc::Status status;
  status.set_code(kInternal);
  status.set_message("the switch failed to serve this");
  end(status);
}

void CallJournal::begin() {
  if (journal_ == nullptr || hasBegun_) return;
  std::vector<PIGrpcServerBytes_t> pieces;
  pieces.reserve(request_.size());
  for (const grpc::Slice& slice : request_) {
    pieces.push_back({reinterpret_cast<const char*>(slice.begin()), slice.size()});
  }
  const bool isOwn = peer_.way == Peer::Way::ownProcess;
  const PIGrpcServerJournalRequest_t request{.kind = kind_,
                                             .identity = isOwn ? "agent" : peer_.identity.c_str(),
                                             .address = isOwn ? "own" : peer_.address.c_str(),
                                             .pieces = pieces.data(),
                                             .piece_count = pieces.size()};
  call_ = journal_->begin(&request);
  hasBegun_ = true;
  request_.clear();
}

void CallJournal::end(const google::rpc::Status& status) {
  if (!hasBegun_) return;
  const std::vector<p4::v1::Error> errors = errorsOf(status);
  const auto failures = failuresOf(errors);
  const PIGrpcServerJournalOutcome_t outcome{.code = status.code(),
                                             .message = status.message().c_str(),
                                             .failures = failures.data(),
                                             .failure_count = failures.size()};
  hasBegun_ = false;
  std::exchange(journal_, nullptr)->end(call_, &outcome);
}

}  // namespace pi::server

void PIGrpcServerJournalIs(const PIGrpcServerJournal_t* journal) {
  pi::server::journalNow = journal;
}
