// Writes against a target that confirms, fails, or takes its time.
#include <chrono>
#include <thread>
#include <vector>

#include "tests/PI/frontend/support/FrontendTest.h"
#include "tests/PI/frontend/support/Memory.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {
namespace {

using p4::v1::Update;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using TestSupport::RefusedWith;

class WriteTest : public FrontendTest {
 protected:
  WriteTest() { pipelineIsUp(); }

  static p4::v1::TableEntry route(uint32_t n, uint32_t port = 1) {
    return test::ipv4(1, n << 8, 24, port);
  }
  static Update insert(uint32_t n, uint32_t port = 1) {
    return test::update(Update::INSERT, route(n, port));
  }
  static Update modify(uint32_t n, uint32_t port) {
    return test::update(Update::MODIFY, route(n, port));
  }
  static Update remove(uint32_t n) { return test::update(Update::DELETE, route(n)); }
};

TEST_F(WriteTest, InsertModifyAndDeleteReachTargetAndReads) {
  EXPECT_EQ(written({insert(1), insert(2)}).code(), code::ok);
  EXPECT_EQ(written({modify(1, 9), remove(2)}).code(), code::ok);
  EXPECT_THAT(found(test::query(test::kIpv4)), ElementsAre(EqualsProto(route(1, 9))));
  ASSERT_THAT(target.batches(), SizeIs(2));
  EXPECT_FALSE(target.batches()[0][1].isOverwrite);
  EXPECT_TRUE(target.batches()[1][0].isOverwrite);
  EXPECT_TRUE(target.batches()[1][1].isDelete);
  EXPECT_EQ(target.batches()[1][1].offset, 1u);
  EXPECT_THAT(target.rows(), SizeIs(1));
}

TEST_F(WriteTest, EachUpdateIsAnsweredByItself) {
  ASSERT_EQ(inserted(route(1)).code(), code::ok);
  target.failureIs(3, code::resourceExhausted, "no room in the TCAM");
  target.callStatusIs(4, PI_STATUS_NOT_IMPLEMENTED_BY_TARGET);
  target.callStatusIs(5, PI_STATUS_BATCH_UPDATE_FAILED);
  target.failureIs(5, code::invalidArgument, "refused at once");
  target.callStatusIs(6, 1234);
  p4::v1::TableEntry bad = route(7);
  bad.set_priority(1);
  const Status status =
      written({insert(1), modify(20, 1), remove(20), insert(3), insert(4), insert(5), insert(6),
               test::update(Update::INSERT, bad), insert(8)});
  EXPECT_EQ(status.code(), code::unknown);
  EXPECT_THAT(test::codesOf(status),
              ElementsAre(code::alreadyExists, code::notFound, code::notFound,
                          code::resourceExhausted, code::unimplemented, code::invalidArgument,
                          code::internal, code::invalidArgument, code::ok));
  const auto errors = test::errorsOf(status);
  EXPECT_EQ(errors[3].message(),
            "table ingress.ipv4: vrf 0x01, dst 0.0.3.0/24: no room in the TCAM");
  EXPECT_THAT(errors[6].message(), HasSubstr("1234"));
  EXPECT_FALSE(errors[8].has_details());
  EXPECT_THAT(found(test::query(test::kIpv4)), testing::Contains(EqualsProto(route(8))));
  EXPECT_THAT(found(route(3)), IsEmpty());
}

TEST_F(WriteTest, FailedChangeLeavesTheOldEntry) {
  ASSERT_EQ(written({insert(1, 5), insert(2, 5)}).code(), code::ok);
  target.failureIs(0, code::internal, "no");
  target.failureIs(1, code::internal, "no");
  EXPECT_THAT(test::codesOf(written({modify(1, 6), remove(2)})),
              ElementsAre(code::internal, code::internal));
  EXPECT_THAT(found(test::query(test::kIpv4)),
              UnorderedElementsAre(EqualsProto(route(1, 5)), EqualsProto(route(2, 5))));
}

TEST_F(WriteTest, UpdatesOfOneEntryRunOneAfterAnotherInBatchesOfTheirOwn) {
  EXPECT_EQ(
      written({insert(1, 1), insert(2, 1), modify(2, 2), modify(1, 2), remove(1), insert(1, 7)})
          .code(),
      code::ok);
  std::vector<std::vector<uint32_t>> offsets;
  for (const auto& batch : target.batches()) {
    offsets.emplace_back();
    for (const auto& call : batch) offsets.back().push_back(call.offset);
  }
  EXPECT_THAT(offsets,
              ElementsAre(ElementsAre(0, 1), ElementsAre(2, 3), ElementsAre(4), ElementsAre(5)));
  EXPECT_THAT(found(test::query(test::kIpv4)),
              UnorderedElementsAre(EqualsProto(route(1, 7)), EqualsProto(route(2, 2))));
}

TEST_F(WriteTest, LaterUpdateOfAnEntrySeesThatTheEarlierOneFailed) {
  target.failureIs(0, code::resourceExhausted, "full");
  EXPECT_THAT(test::codesOf(written({insert(1), modify(1, 2), insert(1, 3)})),
              ElementsAre(code::resourceExhausted, code::notFound, code::ok));
  EXPECT_THAT(found(route(1)), ElementsAre(EqualsProto(route(1, 3))));
}

TEST_F(WriteTest, ModifyWithoutActionKeepsTheActionAndReplacesMetadata) {
  p4::v1::TableEntry entry = route(1, 5);
  entry.set_metadata("first");
  entry.set_controller_metadata(11);
  ASSERT_EQ(inserted(entry).code(), code::ok);
  EXPECT_EQ(target.batches()[0][0].metadata, "first");
  EXPECT_EQ(target.batches()[0][0].controllerMetadata, 11u);
  entry.clear_controller_metadata();
  entry.set_metadata("second");
  p4::v1::TableEntry withoutAction = entry;
  withoutAction.clear_action();
  ASSERT_EQ(written({test::update(Update::MODIFY, withoutAction)}).code(), code::ok);
  EXPECT_THAT(found(test::query(test::kIpv4)), ElementsAre(EqualsProto(entry)));
}

TEST_F(WriteTest, TimeoutIsDeadlineExceededAndStopsTheRestOfACriticalSwitch) {
  ASSERT_EQ(inserted(route(1, 5)).code(), code::ok);
  target.timeoutIs(0);
  target.batchesAreHeld();
  Status status;
  std::thread writer([&] { status = written({modify(1, 6), insert(2), remove(1)}); });
  target.awaitHeldBatch();
  DeviceMgr::set_operation_permission_level(1);  // as the target does on a time-out
  target.batchesAreReleased();
  writer.join();
  EXPECT_THAT(test::codesOf(status),
              ElementsAre(code::deadlineExceeded, code::ok, code::failedPrecondition));
  EXPECT_THAT(test::errorsOf(status)[0].message(), HasSubstr("dst 0.0.1.0/24"));
  const Status refused = inserted(route(3));
  EXPECT_THAT(refused, RefusedWith(code::failedPrecondition,
                                   "WRITE operation is not allowed due to critical state"));
  EXPECT_THAT(found(test::query(test::kIpv4)),
              UnorderedElementsAre(EqualsProto(route(1, 5)), EqualsProto(route(2))));
}

TEST_F(WriteTest, WithoutAForwardingAgentIsUnavailableAsFarAsNothingHasBeenRun) {
  target.batchStatusIs(PI_STATUS_NO_FORWARDING_AGENT);
  const Status status = written({remove(9), insert(1), insert(2)});
  EXPECT_THAT(status, RefusedWith(code::unavailable, "no forwarding agent is attached"));
  EXPECT_THAT(found(test::query(test::kIpv4)), IsEmpty());

  target.batchStatusIs(PI_STATUS_SUCCESS);
  target.batchesAreHeld();
  Status later;
  std::thread writer([&] { later = written({insert(1), modify(1, 2), insert(2)}); });
  target.awaitHeldBatch();
  target.batchStatusIs(PI_STATUS_NO_FORWARDING_AGENT);
  target.batchesAreReleased();
  writer.join();
  EXPECT_THAT(test::codesOf(later), ElementsAre(code::ok, code::unavailable, code::ok));
}

// Writes that wait while another one is out share the next batch when their keys differ. Whether
// they came in time shows afterwards, so that rounds go on until some did.
TEST_F(WriteTest, WritesThatWaitShareABatchAndEachGetsItsOwnOutcome) {
  constexpr uint32_t rounds = 200;
  bool isShared = false;
  uint32_t next = 1000;
  ASSERT_EQ(inserted(route(1)).code(), code::ok);
  for (uint32_t round = 0; round < rounds && !isShared; ++round) {
    const uint32_t n = next += 10;
    const size_t before = target.batches().size();
    target.batchesAreHeld();
    Status first, sound, partly, twin;
    std::vector<std::thread> writers;
    writers.emplace_back([&] { first = written({insert(n)}); });
    target.awaitHeldBatch();
    writers.emplace_back([&] { sound = written({insert(n + 1), modify(1, round % 9 + 1)}); });
    writers.emplace_back([&] { partly = written({remove(99), insert(n + 2), insert(n)}); });
    writers.emplace_back([&] { twin = written({insert(n + 1, 7)}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(round));
    target.batchesAreReleased();
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(first.code(), code::ok);
    EXPECT_THAT(test::codesOf(partly), ElementsAre(code::notFound, code::ok, code::alreadyExists));
    // One of the twins was first.
    const int lost =
        twin.code() == code::ok ? test::codesOf(sound).front() : test::codesOf(twin).front();
    EXPECT_EQ(lost, code::alreadyExists);
    EXPECT_NE(twin.code() == code::ok, sound.code() == code::ok);
    EXPECT_THAT(found(route(n + 2)), SizeIs(1));
    for (size_t i = before; i < target.batches().size(); ++i) {
      isShared = isShared || target.batches()[i].size() > 2;
    }
  }
  EXPECT_TRUE(isShared);
  EXPECT_THAT(target.faults(), IsEmpty());
}

// The remains of an open batch would be taken for the next Write's.
TEST_F(WriteTest, MemoryThatEndsInMidBatchLeavesNoBatchAndNoEntry) {
  ASSERT_EQ(inserted(route(1, 5)).code(), code::ok);
  target.memoryEndsAt(2);
  EXPECT_EQ(written({modify(1, 6), insert(2), insert(3), insert(4)}).code(),
            code::resourceExhausted);
  EXPECT_THAT(target.rows(), SizeIs(1));
  EXPECT_THAT(found(test::query(test::kIpv4)), ElementsAre(EqualsProto(route(1, 5))));
  EXPECT_EQ(written({modify(1, 7), insert(3)}).code(), code::ok);
  EXPECT_THAT(target.rows(), SizeIs(2));
  EXPECT_THAT(target.faults(), IsEmpty());
}

// The target has the entries for good, and the front end would not know of them. A new process
// gets them back.
TEST_F(WriteTest, MemoryThatEndsAfterTheSettlementEndsTheProcess) {
  target.onSettledIs([] { Memory::isUsedUp = true; });
  EXPECT_EXIT(written({insert(1), insert(2)}), testing::ExitedWithCode(1), "cannot go on: ");
}

TEST_F(WriteTest, ReadsDoNotWaitForAPendingWriteAndSeeTheStateBeforeIt) {
  ASSERT_EQ(written({insert(1, 5), insert(2, 5)}).code(), code::ok);
  target.batchesAreHeld();
  std::thread writer([&] { written({modify(1, 6), remove(2), insert(3), modify(3, 9)}); });
  target.awaitHeldBatch();
  EXPECT_THAT(found(test::query(test::kIpv4)),
              UnorderedElementsAre(EqualsProto(route(1, 5)), EqualsProto(route(2, 5))));
  EXPECT_THAT(found(route(1)), ElementsAre(EqualsProto(route(1, 5))));
  EXPECT_THAT(found(route(3)), IsEmpty());
  target.batchesAreReleased();
  writer.join();
  EXPECT_THAT(found(test::query(test::kIpv4)),
              UnorderedElementsAre(EqualsProto(route(1, 6)), EqualsProto(route(3, 9))));
}

TEST_F(WriteTest, TenThousandUpdatesAtOnce) {
  std::vector<Update> updates;
  for (uint32_t n = 0; n < 10000; ++n) updates.push_back(insert(n));
  target.failureIs(9999, code::resourceExhausted, "full");
  const Status status = written(updates);
  ASSERT_EQ(status.details_size(), 10000);
  const std::vector<int> codes = test::codesOf(status);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), code::ok), 9999);
  EXPECT_EQ(codes.back(), code::resourceExhausted);
  EXPECT_THAT(found(test::query(test::kIpv4)), SizeIs(9999));
}

TEST_F(WriteTest, TenThousandUpdatesOfOneEntryTakeOneBatchEach) {
  std::vector<Update> updates{insert(1)};
  for (uint32_t n = 1; n < 10000; ++n) updates.push_back(modify(1, n % 500));
  EXPECT_EQ(written(updates).code(), code::ok);
  EXPECT_THAT(target.batches(), SizeIs(10000));
  EXPECT_THAT(found(test::query(test::kIpv4)), ElementsAre(EqualsProto(route(1, 9999 % 500))));
}

TEST_F(WriteTest, WholeRequestIsRefused) {
  p4::v1::WriteRequest request = test::writeOf({insert(1)});
  request.set_atomicity(static_cast<p4::v1::WriteRequest::Atomicity>(9));
  EXPECT_EQ(device->write(request).code(), code::invalidArgument);
  request.clear_atomicity();
  for (int n = 0; n < 100000; ++n) request.add_updates();
  EXPECT_EQ(device->write(request).code(), code::resourceExhausted);
  DeviceMgr::set_operation_permission_level(0);
  EXPECT_EQ(inserted(route(1)).code(), code::failedPrecondition);
  Entries none;
  EXPECT_EQ(read({test::query(test::kIpv4)}, &none).code(), code::failedPrecondition);
  EXPECT_THAT(target.batches(), IsEmpty());
}

// The target knows one batch at a time, which Writes that wait share.
TEST_F(WriteTest, WritesOfSeveralControllersShareBatches) {
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kWrites = 100;
  {
    std::vector<std::jthread> controllers;
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
      controllers.emplace_back([this, thread] {
        for (uint32_t n = 0; n < kWrites; ++n) {
          EXPECT_EQ(written({insert(thread * kWrites + n)}).code(), code::ok);
        }
      });
    }
  }
  size_t updates = 0;  // the fixture looks for faults
  for (const auto& batch : target.batches()) updates += batch.size();
  EXPECT_EQ(updates, kThreads * kWrites);
  EXPECT_LE(target.batches().size(), kThreads * kWrites);
  EXPECT_THAT(found(test::query(test::kIpv4)), SizeIs(kThreads * kWrites));
}

// What a forwarding agent says may be any bytes; one that is no text must not cost the whole
// answer.
TEST_F(WriteTest, TheOnlyFailureIsToldInTheStatusInPlainText) {
  target.failureIs(1, code::resourceExhausted, "no room \xff\xc3\n\xc3\xbc");
  const std::string why = "no room \xef\xbf\xbd\xef\xbf\xbd \xc3\xbc";
  const Status status = written({insert(1), insert(2)});
  EXPECT_EQ(status.code(), code::unknown);
  EXPECT_THAT(status.message(),
              testing::AllOf(HasSubstr("1 of 2 updates failed: table"), testing::EndsWith(why)));
  EXPECT_THAT(test::errorsOf(status)[1].message(), testing::EndsWith(why));
  target.failuresAreOver();
  target.failureIs(0, code::internal, std::string(4000, 'x'));
  const Status alone = written({insert(3)});
  EXPECT_THAT(alone.message(), testing::StartsWith("table ingress.ipv4"));
  EXPECT_LT(alone.message().size(), 1000u);
  EXPECT_GT(test::errorsOf(alone)[0].message().size(), 3900u);
  EXPECT_LT(alone.ByteSizeLong(), 8u * 1024);
}

// gRPC clients take 8 KiB of error details unless told otherwise; some are told 64 KiB or 1 MiB.
TEST_F(WriteTest, DetailsOfAFailedBatchFitTheHeadersOfClients) {
  const struct {
    uint32_t updates;
    size_t mostBytes;
  } cases[] = {
      {100, 8 << 10}, {600, 64 << 10}, {1400, 64 << 10}, {5000, 1 << 20}, {10000, 1 << 20}};
  for (uint32_t n = 0; n < 10000; ++n) {
    target.failureIs(n, code::resourceExhausted, std::string(300, 'x'));
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.updates);
    std::vector<Update> updates;
    for (uint32_t n = 0; n < c.updates; ++n) updates.push_back(insert(n));
    const Status status = written(updates);
    EXPECT_LT(status.ByteSizeLong(), c.mostBytes - 512) << "beside the other headers";
    EXPECT_EQ(test::codesOf(status), std::vector<int>(c.updates, code::resourceExhausted));
    EXPECT_FALSE(test::errorsOf(status)[0].message().empty());
  }
}

}  // namespace
}  // namespace pi::fe::proto
