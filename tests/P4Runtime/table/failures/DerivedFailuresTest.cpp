// Reports on the rows of queries.
#include "P4Runtime/table/failures/DerivedFailures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/pollen/engine/OutputTable.h"

namespace P4Runtime {
namespace {

using Lattice::Report;

constexpr uint64_t lastSequence = 100;

class DerivedFailuresTest : public testing::Test {
 protected:
  DerivedFailuresTest() {
    derived_.rowTextsIs([this](std::span<const uint64_t> handles) {
      ++walks_;
      std::vector<std::string> texts;
      for (const uint64_t handle : handles)
        texts.push_back(handle == row_ ? "table out, vrf=1" : "");
      return texts;
    });
  }
  void said(uint64_t handle, uint64_t agent, uint16_t code, uint64_t sequence = 50) {
    const Report report{.entryHandle = handle,
                        .sequence = sequence,
                        .errorCode = code,
                        .message = code ? "full" : "",
                        .subscriber = agent,
                        .subscriberName = "main"};
    EXPECT_TRUE(derived_.takeDerived({&report, 1}, lastSequence).empty());
  }
  void expectListed(uint64_t entries) {
    derived_.list();
    EXPECT_EQ(failures_->failedEntries(), entries);
  }

  const uint64_t row_ = Pollen::derivedHandle("out", "1");
  const Vela::Ptr<EntryFailures> failures_ = Vela::make<EntryFailures>("failures");
  DerivedFailures derived_{failures_};
  size_t walks_ = 0;
};

TEST_F(DerivedFailuresTest, RowsThatDoNotStandAreCountedByOneWalk) {
  std::vector<Report> reports{{7, 50, 3, ""}, {row_, 50, 13, "full", 1, "main"}};
  for (uint32_t i = 0; i < 17000; ++i) {
    reports.push_back({Pollen::derivedHandle("out", "no row " + std::to_string(i)), 50, 3, "", 1});
  }
  reports.push_back({row_, lastSequence + 1, 3, "of the future", 1});
  const auto others = derived_.takeDerived(reports, lastSequence);
  ASSERT_EQ(others.size(), 1u);
  EXPECT_EQ(others[0].entryHandle, 7u);
  expectListed(1);
  EXPECT_EQ(failures_->list(), "table out, vrf=1: error 13 full (reported by main)");
  EXPECT_EQ(failures_->reportsOnNoRow(), 17001u);
  expectListed(1);
  EXPECT_EQ(walks_, 1u) << "nothing new was said";
}

TEST_F(DerivedFailuresTest, StandUntilTheAgentMendsThemOrLeavesOrTheRowIsGone) {
  said(row_, 1, 13);
  said(row_, 1, 0);
  expectListed(0);
  said(row_, 1, 13);
  expectListed(1);
  said(row_, 2, 0);  // another agent
  said(row_, 1, 0, 49);
  expectListed(1);
  said(row_, 1, 0);
  expectListed(0);
  said(row_, 1, 13);
  expectListed(1);
  derived_.noteRemovedRow(row_, 60);
  derived_.inStepIs(59);
  expectListed(1);
  derived_.inStepIs(60);
  expectListed(0);
  said(row_, 1, 13);
  derived_.agentDel(1);
  expectListed(0);
}

}  // namespace
}  // namespace P4Runtime
