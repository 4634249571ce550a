// Digests and idle entries, from the target to the controllers' streams.
#include <condition_variable>
#include <mutex>

#include "PI/frontend/notices/DigestLists.h"
#include "PI/pi_extensions.h"
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::StreamMessageResponse;
using p4::v1::Update;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::string_literals;

constexpr uint32_t kLearn = 0x17000077;

class NoticesTest : public FrontendTest {
 protected:
  NoticesTest() {
    target.abilitiesAre({.fields = 1, .default_actions = 1, .entities = 1});
    p4::v1::ForwardingPipelineConfig withDigest = config;
    auto& p4Info = *withDigest.mutable_p4info();
    auto& type = (*p4Info.mutable_type_info()->mutable_structs())["learn_t"];
    for (const int bits : {9, 48}) {
      auto* member = type.add_members()->mutable_type_spec();
      member->mutable_bitstring()->mutable_bit()->set_bitwidth(bits);
    }
    auto* digest = p4Info.add_digests();
    digest->mutable_preamble()->set_id(kLearn);
    digest->mutable_preamble()->set_name("learn");
    digest->mutable_type_spec()->mutable_struct_()->set_name("learn_t");
    EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, withDigest).code(), code::ok);
    target.restored(0, "");
    device->streamResponseCbIs(
        [this](pi_dev_id_t, StreamMessageResponse* response, void*) {
          const std::lock_guard lock(mutex_);
          heard_.push_back(std::move(*response));
          changed_.notify_all();
        },
        nullptr);
  }
  ~NoticesTest() override { device->streamResponseCbIs(nullptr, nullptr); }

  int start(Update::Type type, int64_t maxTimeout, int32_t maxSize, int64_t ackTimeout) {
    p4::v1::Update update;
    update.set_type(type);
    auto& entry = *update.mutable_entity()->mutable_digest_entry();
    entry.set_digest_id(kLearn);
    entry.mutable_config()->set_max_timeout_ns(maxTimeout);
    entry.mutable_config()->set_max_list_size(maxSize);
    entry.mutable_config()->set_ack_timeout_ns(ackTimeout);
    return written({update}).code();
  }
  pi_status_t digest(const std::string& bytes) {
    return pi_digest_message(1, kLearn, bytes.data(), bytes.size());
  }
  void acknowledge(uint64_t list) {
    p4::v1::StreamMessageRequest request;
    request.mutable_digest_ack()->set_digest_id(kLearn);
    request.mutable_digest_ack()->set_list_id(list);
    EXPECT_EQ(device->streamMessage(request).code(), code::ok);
  }
  // All that has come so far, once it is so many.
  std::vector<StreamMessageResponse> heard(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return heard_.size() >= count; });
    return heard_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<StreamMessageResponse> heard_;
};

// Port 1 and the address 0x020304050607: 57 bits.
const std::string first = "\x00\x81\x01\x82\x02\x83\x03\x80"s;
const std::string second = "\x01\x01\x01\x82\x02\x83\x03\x80"s;
constexpr int64_t kLong = 3'600'000'000'000;

TEST_F(NoticesTest, DigestsComeOnceUntilTheyAreAcknowledged) {
  EXPECT_EQ(digest(first), PI_STATUS_LEARN_NO_MATCHING_CB) << "no controller has started it";
  ASSERT_EQ(start(Update::INSERT, 0, 1, kLong), code::ok);
  EXPECT_EQ(digest("short"), PI_STATUS_BUFFER_ERROR);
  EXPECT_EQ(digest(first), PI_STATUS_SUCCESS);
  EXPECT_EQ(digest(first), PI_STATUS_SUCCESS);  // known
  auto lists = heard(1);
  ASSERT_THAT(lists, SizeIs(1));
  const p4::v1::DigestList list = lists[0].digest();
  EXPECT_EQ(list.digest_id(), kLearn);
  EXPECT_GT(list.timestamp(), 0);
  ASSERT_THAT(list.data(), SizeIs(1));
  const auto& members = list.data(0).struct_().members();
  ASSERT_THAT(members, SizeIs(2));
  EXPECT_EQ(members[0].bitstring(), "\1"s);
  EXPECT_EQ(members[1].bitstring(), "\2\3\4\5\6\7"s);

  acknowledge(list.list_id() + 1);  // no such list
  digest(first);
  EXPECT_THAT(heard(1), SizeIs(1));
  acknowledge(list.list_id());
  digest(first);
  lists = heard(2);
  ASSERT_THAT(lists, SizeIs(2));
  EXPECT_NE(lists[1].digest().list_id(), list.list_id());

  p4::v1::Update stop;
  stop.set_type(Update::DELETE);
  stop.mutable_entity()->mutable_digest_entry()->set_digest_id(kLearn);
  ASSERT_EQ(written({stop}).code(), code::ok);
  EXPECT_EQ(digest(second), PI_STATUS_LEARN_NO_MATCHING_CB);
}

TEST_F(NoticesTest, DigestsAreGathered) {
  ASSERT_EQ(start(Update::INSERT, kLong, 2, 0), code::ok);
  digest(first);
  digest(first);  // waits already
  digest(second);
  auto lists = heard(1);
  ASSERT_THAT(lists, SizeIs(1));
  EXPECT_THAT(lists[0].digest().data(), SizeIs(2));
  digest(first);  // nothing is kept of a list without acknowledgement
  ASSERT_EQ(start(Update::MODIFY, 1, 0, 0), code::ok);
  digest(second);
  EXPECT_THAT(heard(1), SizeIs(1)) << "the list that waits has its hour";
}

TEST_F(NoticesTest, ListsGoWhenTheirTimeHasCome) {
  ASSERT_EQ(start(Update::INSERT, 1'000'000, 0, 0), code::ok);
  digest(first);
  const auto lists = heard(1);
  ASSERT_THAT(lists, SizeIs(1));
  EXPECT_THAT(lists[0].digest().data(), SizeIs(1));
}

TEST_F(NoticesTest, IdleEntriesAreTold) {
  p4::v1::TableEntry entry = test::exact(test::kCounted, 1);
  entry.set_idle_timeout_ns(77);
  entry.set_metadata("mine");
  ASSERT_EQ(inserted(entry).code(), code::ok);
  ASSERT_EQ(inserted(test::exact(test::kCounted, 2)).code(), code::ok);  // never idle
  for (const auto& [key, row] : target.rows()) {
    std::string bytes = key.bytes;
    const pi_match_key_t match{nullptr, key.tableId, key.priority, bytes.size(), bytes.data()};
    pi_table_entry_idle(1, key.tableId, &match);
  }
  const auto notices = heard(1);
  ASSERT_THAT(notices, SizeIs(1));
  const auto& notice = notices[0].idle_timeout_notification();
  EXPECT_GT(notice.timestamp(), 0);
  ASSERT_THAT(notice.table_entry(), SizeIs(1));
  entry.clear_action();
  EXPECT_THAT(notice.table_entry(0), EqualsProto(entry));
}

}  // namespace
}  // namespace pi::fe::proto
