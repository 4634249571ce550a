// Writes that stand or fall as a whole.
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::Update;
using p4::v1::WriteRequest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class WholeWriteTest : public FrontendTest {
 protected:
  void SetUp() override {
    pipelineIsUp();
    ASSERT_EQ(written({in(test::member(1, 7)), in(test::member(2, 8)),
                       in(test::group(1, {{1, 1}, {2, 3}})), in(test::toGroup(1, 1)),
                       in(test::exact(test::kCounted, 1)), in(test::ipv4(1, 0x0a000000, 8, 1))})
                  .code(),
              code::ok);
  }
  template <typename Entity>
  static Update in(const Entity& entity) {
    return test::update(Update::INSERT, entity);
  }
  template <typename Entity>
  static Update out(const Entity& entity) {
    return test::update(Update::DELETE, entity);
  }
  template <typename Entity>
  static Update mod(const Entity& entity) {
    return test::update(Update::MODIFY, entity);
  }
  Status writtenWhole(const std::vector<Update>& updates) {
    WriteRequest request = test::writeOf(updates);
    request.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
    return device->write(request);
  }
  // All that a controller can read, and all that the target has.
  std::string state() {
    std::string text;
    for (const auto& one : found({})) text += one.ShortDebugString() + "\n";
    for (const auto& one : members()) text += one.ShortDebugString() + "\n";
    for (const auto& one : groups()) text += one.ShortDebugString() + "\n";
    for (const auto& [key, row] : target.rows()) {
      absl::StrAppend(&text, key.tableId, " ", row.handle, " ", row.actionId, row.indirect, "\n");
    }
    absl::StrAppend(&text, target.members().size(), " ", target.groups().size());
    return text;
  }
  // Each one depends on others before it.
  static std::vector<Update> story() {
    return {out(test::exact(test::kCounted, 1)),
            in(test::exact(test::kCounted, 1)),
            in(test::member(3, 9)),
            mod(test::group(1, {{3, 2}})),
            out(test::member(1, 0)),
            in(test::group(2, {{2, 1}, {3, 1}})),
            in(test::toGroup(2, 2)),
            mod(test::ipv4(1, 0x0a000000, 8, 2)),
            mod(test::ipv4(1, 0x0a000000, 8, 3)),
            out(test::toGroup(1, 1)),
            out(test::group(1, {}))};
  }
};

TEST_F(WholeWriteTest, TakesOneBatchWhateverDependsOnWhat) {
  const size_t before = target.batches().size();
  EXPECT_EQ(writtenWhole(story()).code(), code::ok);
  EXPECT_EQ(target.batches().size(), before + 1);
  EXPECT_THAT(members(), SizeIs(2));
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(test::group(2, {{2, 1}, {3, 1}}))));
  EXPECT_THAT(found(test::query(test::kIpv4)),
              ElementsAre(EqualsProto(test::ipv4(1, 0x0a000000, 8, 3))));
}

TEST_F(WholeWriteTest, LeavesNothingWhenTheForwardingPlaneRefusesAnyOfIt) {
  const std::string before = state();
  const auto updates = story();
  for (uint32_t culprit = 0; culprit < updates.size(); ++culprit) {
    SCOPED_TRACE(culprit);
    target.failureIs(culprit, code::resourceExhausted, "full");
    const Status status = writtenWhole(updates);
    std::vector<int> codes(updates.size(), code::aborted);
    codes[culprit] = code::resourceExhausted;
    EXPECT_EQ(test::codesOf(status), codes);
    EXPECT_THAT(status.message(),
                HasSubstr("1 of 11 updates failed, so none of them is in effect"));
    EXPECT_THAT(status.message(), HasSubstr("full"));
    EXPECT_EQ(state(), before);
    target.failuresAreOver();
  }
  EXPECT_EQ(writtenWhole(updates).code(), code::ok);
}

TEST_F(WholeWriteTest, LeavesNothingWhenItsLastUpdateIsRefused) {
  const std::string before = state();
  const struct {
    const char* what;
    Update update;
    int code;
  } cases[] = {
      {"stands already, by this Write", in(test::group(2, {})), code::alreadyExists},
      {"not there any more, by this Write", out(test::group(1, {})), code::notFound},
      {"used, by this Write", out(test::group(2, {})), code::failedPrecondition},
      {"other style than this Write's", in(test::oneShot(9, {{1, 1}})), code::invalidArgument},
      {"malformed", in(test::exact(0x020000ff, 1)), code::invalidArgument},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto updates = story();
    updates.push_back(c.update);
    std::vector<int> codes(updates.size(), code::aborted);
    codes.back() = c.code;
    EXPECT_EQ(test::codesOf(writtenWhole(updates)), codes);
    EXPECT_EQ(state(), before);
  }
  // The room that its updates would have taken is free again.
  EXPECT_EQ(written({in(test::group(5, {{1, 16}})), in(test::group(6, {{1, 16}}))}).code(),
            code::ok);
  EXPECT_EQ(written({out(test::member(2, 0))}).code(), code::unknown) << "still in group 1";
}

TEST_F(WholeWriteTest, TellsEachCulprit) {
  target.failureIs(0, code::internal, "");
  target.failureIs(2, code::resourceExhausted, "full");
  const Status status =
      writtenWhole({in(test::exact(test::kCounted, 5)), in(test::exact(test::kCounted, 6)),
                    in(test::exact(test::kCounted, 7))});
  EXPECT_EQ(test::codesOf(status),
            (std::vector{code::internal, code::aborted, code::resourceExhausted}));
  EXPECT_THAT(status.message(), HasSubstr("2 of 3 updates failed, so none of them"));
}

TEST_F(WholeWriteTest, AtOnceNeedsATargetThatAppliesItAtOnce) {
  WriteRequest request = test::writeOf({in(test::exact(test::kCounted, 5))});
  request.set_atomicity(WriteRequest::DATAPLANE_ATOMIC);
  const Status refused = device->write(request);
  EXPECT_EQ(refused.code(), code::unimplemented);
  EXPECT_THAT(refused.message(), HasSubstr("use ROLLBACK_ON_ERROR"));
  EXPECT_EQ(refused.details_size(), 0);
  target.appliesAtOnceIs(true);
  EXPECT_EQ(device->write(request).code(), code::ok);
  EXPECT_EQ(test::codesOf(device->write(request)), std::vector{code::alreadyExists});
}

}  // namespace
}  // namespace pi::fe::proto
