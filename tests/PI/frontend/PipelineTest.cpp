// The pipeline of a device: installing it, requests of controllers, and reports of the target
// hands back after a restart.
#include <thread>

#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using namespace std::string_literals;

using PipelineTest = FrontendTest;
using Get = p4::v1::GetForwardingPipelineConfigRequest;

TEST_F(PipelineTest, NothingIsServedBeforeThereIsOne) {
  Entries entries;
  p4::v1::ForwardingPipelineConfig none;
  EXPECT_FALSE(device->hasPipeline());
  EXPECT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::failedPrecondition);
  EXPECT_EQ(read({test::query(0)}, &entries).code(), code::failedPrecondition);
  EXPECT_EQ(device->pipelineConfig(Get::ALL, &none).code(), code::ok);
  EXPECT_THAT(none, EqualsProto(p4::v1::ForwardingPipelineConfig()));
}

TEST_F(PipelineTest, PartsAreReturnedAsAskedFor) {
  pipelineIsUp();
  const struct {
    Get::ResponseType type;
    bool p4Info, device;
  } cases[] = {{Get::ALL, true, true},
               {Get::COOKIE_ONLY, false, false},
               {Get::P4INFO_AND_COOKIE, true, false},
               {Get::DEVICE_CONFIG_AND_COOKIE, false, true}};
  for (const auto& c : cases) {
    p4::v1::ForwardingPipelineConfig got;
    EXPECT_EQ(device->pipelineConfig(c.type, &got).code(), code::ok);
    p4::v1::ForwardingPipelineConfig expected = config;
    if (!c.p4Info) expected.clear_p4info();
    if (!c.device) expected.clear_p4_device_config();
    EXPECT_THAT(got, EqualsProto(expected));
  }
  p4::v1::ForwardingPipelineConfig got;
  EXPECT_EQ(device->pipelineConfig(static_cast<Get::ResponseType>(9), &got).code(),
            code::invalidArgument);
}

// Controllers tell by the cookie whether their own pipeline is running.
TEST_F(PipelineTest, ControllersGetBackWhatTheyPushed) {
  pipelineIsUp();
  p4::v1::ForwardingPipelineConfig pushed = config;
  pushed.set_p4_device_config("\xff of another kind");
  pushed.mutable_cookie()->set_cookie(0);
  const auto push = [&](const p4::v1::ForwardingPipelineConfig* config) {
    return DeviceMgrImp::pipelineConfigPush(1, Push::RECONCILE_AND_COMMIT, config);
  };
  target.pushes.code = code::notFound;
  target.pushes.message = "why";
  EXPECT_EQ(push(nullptr).code(), code::notFound);
  EXPECT_EQ(push(nullptr).message(), "why");
  EXPECT_FALSE(target.pushes.config.has_value());
  target.pushes.code = code::ok;
  EXPECT_EQ(push(&pushed).code(), code::ok);
  EXPECT_EQ(target.pushes.action, Push::RECONCILE_AND_COMMIT);
  p4::v1::ForwardingPipelineConfig got;
  ASSERT_TRUE(got.ParseFromString(target.pushes.config.value_or("")));
  EXPECT_THAT(got, EqualsProto(pushed));

  const auto expectRuns = [&](const p4::v1::ForwardingPipelineConfig& expected) {
    ASSERT_EQ(device->pipelineConfig(Get::ALL, &got).code(), code::ok);
    EXPECT_THAT(got, EqualsProto(expected));
  };
  expectRuns(config);
  target.pushes.given = pushed.SerializeAsString();
  device->handleGivenChanged();
  expectRuns(pushed);
  target.pushes.given.clear();
  pipelineIsUp();
  expectRuns(config);
}

// A level of 0 that ends soon is worth waiting for.
TEST_F(PipelineTest, ControllersWaitWhileThePipelineChanges) {
  pipelineIsUp();
  Entries entries;
  DeviceMgr::set_operation_permission_level(0);
  DeviceMgr::set_pipeline_changing(true);
  EXPECT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::unavailable);
  EXPECT_EQ(read({test::query(0)}, &entries).code(), code::unavailable);
  DeviceMgr::set_pipeline_changing(false);
  EXPECT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::failedPrecondition);
  DeviceMgr::set_operation_permission_level(2);
  EXPECT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::ok);
}

TEST_F(PipelineTest, FailedInstallLeavesTheFormerOne) {
  pipelineIsUp();
  ASSERT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::ok);
  p4::v1::ForwardingPipelineConfig broken = config;
  broken.mutable_p4info()->mutable_tables(0)->mutable_preamble()->set_id(0);
  EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, broken).code(),
            code::invalidArgument);
  broken = config;
  broken.set_p4_device_config("\xff no message");
  EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, broken).code(),
            code::invalidArgument);
  target.updateDeviceStatusIs(PI_STATUS_TARGET_ERROR);
  EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::internal);
  EXPECT_THAT(found(test::query(test::kCounted)), SizeIs(1));
}

TEST_F(PipelineTest, SavedOneIsCommittedOnce) {
  EXPECT_EQ(device->pipelineConfigSet(Push::COMMIT, {}).code(), code::notFound);
  EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY, config).code(), code::ok);
  EXPECT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_SAVE, config).code(), code::ok);
  EXPECT_FALSE(device->hasPipeline());
  EXPECT_EQ(device->pipelineConfigSet(Push::COMMIT, {}).code(), code::ok);
  EXPECT_TRUE(device->hasPipeline());
  EXPECT_EQ(device->pipelineConfigSet(Push::COMMIT, {}).code(), code::notFound);
}

TEST_F(PipelineTest, ControllersWaitUntilTheTargetHasRestoredAll) {
  device.reset();
  device.emplace(1, std::chrono::hours(1));
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  Status status;
  std::thread writer([&] { status = inserted(test::exact(test::kCounted, 1)); });
  target.restored(0, "");
  writer.join();
  EXPECT_EQ(status.code(), code::ok);
}

TEST_F(PipelineTest, ControllersHearUnavailableWhenTheRestoreTakesTooLong) {
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  Entries entries;
  EXPECT_EQ(inserted(test::exact(test::kCounted, 1)).code(), code::unavailable);
  EXPECT_EQ(read({test::query(0)}, &entries).code(), code::unavailable);
}

TEST_F(PipelineTest, RestoredEntriesAreKnownAgain) {
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  target.rowIs({test::kCounted, 0, "\0\7"s}, {50, test::kDrop, ""});
  EXPECT_THAT(target.restored(9, "blue"), ElementsAre(PI_STATUS_SUCCESS));
  TableEntry expected = test::exact(test::kCounted, 7);
  expected.set_controller_metadata(9);
  expected.set_metadata("blue");
  EXPECT_THAT(found(test::query(0)), ElementsAre(EqualsProto(expected)));
  EXPECT_THAT(test::codesOf(inserted(expected)), ElementsAre(code::alreadyExists));
  EXPECT_EQ(written({test::update(Update::DELETE, expected)}).code(), code::ok);
  EXPECT_THAT(target.restored(0, ""), IsEmpty());
}

TEST_F(PipelineTest, RestoredEntriesThatDoNotFitAreRefused) {
  const struct {
    const char* what;
    FakeTarget::Key key;
    FakeTarget::Row row;
  } cases[] = {
      {"unknown table", {0x02000099, 0, "\1"s}, {1, test::kDrop, ""}},
      {"short key", {test::kCounted, 0, "\1"s}, {1, test::kDrop, ""}},
      {"action of another table", {test::kCounted, 0, "\0\1"s}, {1, test::kForward, "12345678"}},
      {"action data too long", {test::kCounted, 0, "\0\2"s}, {1, test::kDrop, "1"}},
      {"priority where none is due", {test::kCounted, 1, "\0\1"s}, {1, test::kDrop, ""}},
      {"table of an action profile", {test::kWcmp, 0, "\1"s}, {1, test::kDrop, ""}},
  };
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  for (const auto& c : cases) target.rowIs(c.key, c.row);
  EXPECT_THAT(
      target.restored(0, ""),
      testing::AllOf(SizeIs(std::size(cases)), testing::Each(testing::Ne(PI_STATUS_SUCCESS))));
  EXPECT_EQ(device->pipeline()->store().size(), 0u);
}

// A push that changes one of many tables: the target need not hand the others' entries back.
TEST_F(PipelineTest, EntriesOfTablesThatStandAlikeGoOver) {
  pipelineIsUp();
  const TableEntry counted = test::exact(test::kCounted, 1);
  for (const TableEntry& entry : {counted, test::ipv4(1, 0x0a000000, 8, 5), test::acl(1, 1, 7)}) {
    ASSERT_EQ(inserted(entry).code(), code::ok);
  }
  p4::v1::ForwardingPipelineConfig next = config;
  auto* added = next.mutable_p4info()->add_actions();
  added->mutable_preamble()->set_id(0x01aaaaaa);
  added->mutable_preamble()->set_name("added");
  for (auto& table : *next.mutable_p4info()->mutable_tables()) {
    if (table.preamble().id() == test::kAcl) table.mutable_match_fields(0)->set_bitwidth(14);
    if (table.preamble().id() != test::kCounted) continue;
    table.set_size(table.size() + 1);
    table.mutable_preamble()->set_alias("other");
    table.mutable_match_fields(0)->set_name("other");
    table.add_action_refs()->set_id(0x01aaaaaa);
  }
  for (auto& action : *next.mutable_p4info()->mutable_actions()) {
    if (action.preamble().id() == test::kForward) action.mutable_params(0)->set_bitwidth(10);
  }
  const auto keptOf = [](std::vector<pi_p4_id_t> ids) {
    size_t count = ids.size();
    EXPECT_EQ(pi_restore_keep(1, ids.data(), &count), PI_STATUS_SUCCESS);
    ids.resize(count);
    return ids;
  };
  const std::vector<pi_p4_id_t> all{test::kAcl,   test::kCounted, test::kConst,  test::kIpv4,
                                    test::kPlain, 0x02000099,     test::kInitial};
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, next).code(), code::ok);
  EXPECT_THAT(keptOf(all), ElementsAre(test::kCounted))
      << "others have another field or action, or entries that come with the pipeline";
  EXPECT_THAT(keptOf(all), IsEmpty()) << "the former pipeline has nothing left";
  ASSERT_EQ(pi_restore_done(1), PI_STATUS_SUCCESS);
  EXPECT_THAT(found(test::query(0)), ElementsAre(EqualsProto(counted)));
  TableEntry changed = counted;
  changed.mutable_action()->mutable_action()->set_action_id(0x01aaaaaa);
  changed.mutable_action()->mutable_action()->clear_params();
  EXPECT_EQ(written({test::update(Update::MODIFY, changed)}).code(), code::ok);
  EXPECT_THAT(found(test::query(0)), ElementsAre(EqualsProto(changed)));

  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  EXPECT_THAT(keptOf(all), IsEmpty()) << "an action has gone";
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, next).code(), code::ok);
  EXPECT_THAT(keptOf(all), IsEmpty()) << "the former pipeline never had its entries";
}

TEST_F(PipelineTest, ConstantAndInitialEntriesAreTakenOver) {
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  target.rowIs({test::kConst, 0, "\1"s}, {60, test::kDrop, ""});
  target.rowIs({test::kInitial, 0, "\2"s}, {61, test::kDrop, ""});
  ASSERT_EQ(pi_restore_done(1), PI_STATUS_SUCCESS);
  TableEntry constant = test::exact(test::kConst, 1);
  constant.set_is_const(true);
  const TableEntry initial = test::exact(test::kInitial, 2);
  EXPECT_THAT(found(test::query(0)),
              UnorderedElementsAre(EqualsProto(constant), EqualsProto(initial)));
  EXPECT_THAT(test::codesOf(inserted(initial)), ElementsAre(code::alreadyExists));
  EXPECT_EQ(written({test::update(Update::DELETE, initial)}).code(), code::ok);
  EXPECT_THAT(test::codesOf(written({test::update(Update::DELETE, test::exact(test::kConst, 1))})),
              ElementsAre(code::permissionDenied));
}

// Wherever a target programs entries of its own, in tables of ordinary ones too.
TEST_F(PipelineTest, TheTargetsOwnEntriesAreConstant) {
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  std::string bytes[] = {"\0\7"s, "\0\10"s};
  const auto key = [&](int n) {
    return pi_match_key_t{nullptr, test::kCounted, 0, 2, &bytes[n][0]};
  };
  const pi_match_key_t restored = key(0);
  const pi_match_key_t fresh = key(1);
  pi_action_data_t action{nullptr, test::kDrop, 0, nullptr};
  pi_table_entry_t entry{};
  entry.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
  entry.entry.action_data = &action;
  const auto tell = [&](const pi_match_key_t& key, const pi_table_entry_t* entry) {
    return pi_constant_table_entry_state(1, test::kCounted, &key, entry, 51);
  };
  EXPECT_NE(tell(restored, nullptr), PI_STATUS_SUCCESS) << "there is none yet";
  ASSERT_EQ(pi_restore_table_entry_state(1, test::kCounted, &restored, &entry, 50, 0, "", 0),
            PI_STATUS_SUCCESS);
  EXPECT_EQ(tell(restored, nullptr), PI_STATUS_SUCCESS);
  EXPECT_EQ(tell(fresh, &entry), PI_STATUS_SUCCESS);
  ASSERT_EQ(pi_restore_done(1), PI_STATUS_SUCCESS);

  TableEntry seven = test::exact(test::kCounted, 7);
  TableEntry eight = test::exact(test::kCounted, 8);
  TableEntry keyAlone = seven;
  keyAlone.clear_action();
  const std::vector<int> denied{code::permissionDenied};
  EXPECT_EQ(test::codesOf(written({test::update(Update::DELETE, seven)})), denied);
  EXPECT_EQ(test::codesOf(written({test::update(Update::MODIFY, eight)})), denied);
  EXPECT_EQ(written({test::update(Update::MODIFY, keyAlone)}).code(), code::ok)
      << "its direct resources";
  EXPECT_THAT(test::codesOf(inserted(seven)), ElementsAre(code::alreadyExists));
  seven.set_is_const(true);
  eight.set_is_const(true);
  EXPECT_THAT(found(test::query(0)), UnorderedElementsAre(EqualsProto(seven), EqualsProto(eight)));
  EXPECT_THAT(found(keyAlone), ElementsAre(EqualsProto(seven)));
}

}  // namespace
}  // namespace pi::fe::proto
