// The journal that the server tells of calls that write.
#include <gmock/gmock.h>

#include <mutex>
#include <string>
#include <vector>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_journal.h"
#include "google/rpc/status.pb.h"
#include "tests/PI/server/ServerFixture.h"

namespace {

using p4::v1::SetForwardingPipelineConfigRequest;
using p4::v1::WriteRequest;

struct Told {
  PIGrpcServerJournalKind_t kind{};
  std::string identity, address, bytes;
  bool hasEnded = false;
  int code = -1;
  std::string message;
  std::vector<std::string> failures;  // "1: 6 there already"
};

std::mutex mutex;  // guards told
std::vector<Told> told;

void* begin(const PIGrpcServerJournalRequest_t* request) {
  Told one{.kind = request->kind, .identity = request->identity, .address = request->address};
  for (size_t i = 0; i < request->piece_count; ++i) {
    one.bytes.append(request->pieces[i].data, request->pieces[i].size);
  }
  const std::lock_guard lock(mutex);
  told.push_back(std::move(one));
  return reinterpret_cast<void*>(told.size());
}

void end(void* call, const PIGrpcServerJournalOutcome_t* outcome) {
  const std::lock_guard lock(mutex);
  Told& one = told.at(reinterpret_cast<size_t>(call) - 1);
  EXPECT_FALSE(one.hasEnded);
  one.hasEnded = true;
  one.code = outcome->code;
  one.message = outcome->message;
  for (size_t i = 0; i < outcome->failure_count; ++i) {
    const PIGrpcServerJournalFailure_t& failure = outcome->failures[i];
    one.failures.push_back(std::to_string(failure.index) + ": " + std::to_string(failure.code) +
                           ' ' + std::string(failure.message.data, failure.message.size));
  }
}

constexpr PIGrpcServerJournal_t journal{.begin = begin, .end = end};

class CallJournalTest : public ServerTest {
 protected:
  CallJournalTest() {
    told.clear();
    PIGrpcServerJournalIs(&journal);
  }
  ~CallJournalTest() override { PIGrpcServerJournalIs(nullptr); }
};

TEST_F(CallJournalTest, HasTheBytesOfEachWriteThatIsLetInAndItsOutcome) {
  const auto primary = served();
  told.clear();
  WriteRequest request = writeRequest(10, 2000);  // of several pieces
  for (auto& update : *request.mutable_updates()) {
    update.mutable_entity()->mutable_table_entry()->set_metadata("some bytes of an entry");
  }
  ASSERT_TRUE(write(request).ok());
  EXPECT_FALSE(write(9).ok()) << "not the primary";
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].kind, PI_GRPC_SERVER_JOURNAL_WRITE);
  EXPECT_EQ(told[0].identity, "");
  EXPECT_THAT(told[0].address, testing::HasSubstr("127.0.0.1"));
  EXPECT_EQ(told[0].bytes, request.SerializeAsString());
  EXPECT_TRUE(told[0].hasEnded);
  EXPECT_EQ(told[0].code, 0);

  google::rpc::Status answer = statusOf(StatusCode::UNKNOWN, "1 of 2 updates failed");
  p4::v1::Error error;
  answer.add_details()->PackFrom(error);
  error.set_canonical_code(StatusCode::ALREADY_EXISTS);
  error.set_message("there already");
  answer.add_details()->PackFrom(error);
  TheFakeDevice().onWrite = [&](const WriteRequest&) { return answer; };
  EXPECT_FALSE(write(writeRequest(10, 2)).ok());
  EXPECT_EQ(told[1].code, StatusCode::UNKNOWN);
  EXPECT_EQ(told[1].message, "1 of 2 updates failed");
  EXPECT_THAT(told[1].failures, testing::ElementsAre("1: 6 there already"));

  TheFakeDevice().onWrite = [](const WriteRequest&) -> google::rpc::Status {
    throw std::runtime_error("no luck");
  };
  EXPECT_FALSE(write(10).ok());
  EXPECT_EQ(told[2].code, StatusCode::INTERNAL);
}

TEST_F(CallJournalTest, HasPushesAndThePipelinesOfTheAgent) {
  const auto primary = served();
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].kind, PI_GRPC_SERVER_JOURNAL_PIPELINE);
  EXPECT_EQ(told[0].identity, "agent");
  EXPECT_EQ(told[0].code, 0);
  EXPECT_FALSE(push("a wrong token").ok()) << "there is no election id in it";
  EXPECT_EQ(told.size(), 1u);
  SetForwardingPipelineConfigRequest request;
  request.set_device_id(deviceId_);
  request.mutable_election_id()->set_low(10);
  request.set_action(SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  request.mutable_config()->set_p4_device_config("program");
  grpc::ClientContext context;
  p4::v1::SetForwardingPipelineConfigResponse response;
  EXPECT_FALSE(stub_->SetForwardingPipelineConfig(&context, request, &response).ok());
  ASSERT_EQ(told.size(), 2u);
  EXPECT_EQ(told[1].kind, PI_GRPC_SERVER_JOURNAL_PUSH);
  EXPECT_EQ(told[1].bytes, request.SerializeAsString());
  EXPECT_EQ(told[1].code, 12) << "as the device has it";
  EXPECT_EQ(told[1].message, "no pipelines are taken");
}

TEST_F(CallJournalTest, NoneCostsNothingAndIsToldNothing) {
  const auto primary = served();
  told.clear();
  PIGrpcServerJournalIs(nullptr);
  EXPECT_TRUE(write(10).ok());
  EXPECT_TRUE(told.empty());
}

}  // namespace
