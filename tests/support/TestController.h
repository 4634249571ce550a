// A P4Runtime controller for tests: one channel, one stream, and verbs that read like the story.
#pragma once

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "p4/v1/p4runtime.grpc.pb.h"
#include "tests/support/Waiting.h"

namespace TestSupport {

struct WriteOutcome {
  grpc::Status status;
  std::vector<p4::v1::Error> errors;  // one an update when the status is UNKNOWN, else none

  bool ok() const { return status.ok(); }
  // The canonical code of one update, in every form of a response.
  grpc::StatusCode code(size_t update) const;
};
void PrintTo(const WriteOutcome& outcome, std::ostream* out);

struct ReadOutcome {
  grpc::Status status;
  std::vector<p4::v1::TableEntry> entries;
};

struct EntitiesOutcome {
  grpc::Status status;
  std::vector<p4::v1::Entity> entities;
};

p4::v1::Entity entityOf(const p4::v1::TableEntry& entry);
p4::v1::Entity entityOf(const p4::v1::ActionProfileMember& member);
p4::v1::Entity entityOf(const p4::v1::ActionProfileGroup& group);
p4::v1::Entity entityOf(const p4::v1::DirectCounterEntry& counter);
p4::v1::Entity entityOf(const p4::v1::DirectMeterEntry& meter);
inline const p4::v1::Entity& entityOf(const p4::v1::Entity& entity) { return entity; }

p4::v1::Update updateOf(p4::v1::Update::Type type, const p4::v1::Entity& entity);
template <typename Thing>
p4::v1::Update insertOf(const Thing& thing) {
  return updateOf(p4::v1::Update::INSERT, entityOf(thing));
}
template <typename Thing>
p4::v1::Update modifyOf(const Thing& thing) {
  return updateOf(p4::v1::Update::MODIFY, entityOf(thing));
}
template <typename Thing>
p4::v1::Update deleteOf(const Thing& thing) {
  return updateOf(p4::v1::Update::DELETE, entityOf(thing));
}

// A packet-out as the router pipeline declares it.
p4::v1::PacketOut packetOut(uint32_t port, std::string payload, bool submitToIngress = false);

// Several threads may write and read at once; one thread owns the stream's verbs.
class TestController {
 public:
  TestController(const std::string& address, uint64_t electionIdLow, uint64_t deviceId = 1);
  ~TestController();

  // Opens the stream, or sends one more arbitration update. Returns the code in the server's
  // arbitration message, or the code with which the stream ended.
  grpc::StatusCode arbitrate();
  bool becomePrimary() { return arbitrate() == grpc::StatusCode::OK; }
  void electionIdIs(uint64_t low) { electionIdLow_ = low; }  // the next arbitrate() brings it
  // The next arbitration message that nobody asked for.
  std::optional<grpc::StatusCode> arbitrationNotice();
  // A channel makes no progress unless somebody waits on it, so calls that fail fast are no way to
  // wait for a server.
  bool waitConnected(std::chrono::milliseconds timeout);
  void disconnect();

  // Packets; the stream is open after arbitrate(). False when it has ended.
  bool send(p4::v1::PacketOut packet);
  bool send(const p4::v1::StreamMessageRequest& request);
  // Called for each packet-in, on the stream's thread; set it before arbitrate().
  void onPacketInIs(std::function<void(const p4::v1::PacketIn&)> packetIn);
  // Called for each digest list and idle notification, likewise.
  void onNoticeIs(std::function<void(const p4::v1::StreamMessageResponse&)> notice);
  // The next stream error; nothing when none comes while a test's patience lasts.
  std::optional<p4::v1::StreamError> streamError();
  size_t streamErrorCount() const { return streamErrorCount_; }  // all that came
  void readsIs(bool reads);  // false: reads at most one more message from the stream

  WriteOutcome write(const std::vector<p4::v1::Update>& updates,
                     std::chrono::milliseconds timeout = patience);
  WriteOutcome write(const p4::v1::WriteRequest& request,
                     std::chrono::milliseconds timeout = patience);
  p4::v1::WriteRequest writeRequest(const std::vector<p4::v1::Update>& updates) const;
  ReadOutcome read(const p4::v1::TableEntry& query, std::chrono::milliseconds timeout = patience);
  ReadOutcome readTable(uint32_t tableId);  // 0: all tables
  EntitiesOutcome read(const std::vector<p4::v1::Entity>& queries,
                       std::chrono::milliseconds timeout = patience);
  p4::v1::P4Runtime::Stub& stub() { return *stub_; }

 private:
  using Stream =
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>;
  std::optional<grpc::StatusCode> nextNotice();
  void openStream();
  void followStream();
  void waitUntilReads();
  void handle(const p4::v1::StreamMessageResponse& response);
  void tell(grpc::StatusCode code);

  const uint64_t deviceId_;
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  std::atomic<uint64_t> electionIdLow_;
  std::unique_ptr<grpc::ClientContext> context_;
  std::unique_ptr<Stream> stream_;
  std::thread follower_;
  std::function<void(const p4::v1::PacketIn&)> packetIn_;
  std::function<void(const p4::v1::StreamMessageResponse&)> notice_;
  std::atomic<size_t> streamErrorCount_{0};

  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  std::deque<grpc::StatusCode> notices_;
  std::deque<p4::v1::StreamError> streamErrors_;
  bool reads_ = true;
};

}  // namespace TestSupport
