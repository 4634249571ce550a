// Values as other processes may have left them.
#include "forwarder/table/ProgrammedTable.h"

#include <gtest/gtest.h>

#include "tests/forwarder/Packing.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;

constexpr const char* everything =
    "key port : U16; mtu : U16; mac : EthAddr; members : U32[]; weights : U64[];"
    "action { set_nexthop 16777218 { nexthop : U32; mark : U8; } drop 16777219 { none : Void; } }"
    "meter; counter;";

std::string valueOf(const std::string& action) {
  return std::string(8, 'c') + little(2, 4) + std::string(8, 'm') + little(1, 4) +
         std::string(8, 'w') + action + std::string(33, 't') + std::string(17, 'n');
}

// The fault that the table finds in a value; "" when it has the layout.
std::string fault(const ProgrammedTable& table, const std::string& value) {
  try {
    table.checkValue(value);
    return {};
  } catch (const Lattice::TypeError& e) {
    return e.what();
  }
}

TEST(ProgrammedTable, TakesValuesOfItsLayoutAndNothingElse) {
  const ProgrammedTable table("table", typeOf(everything));
  const std::string good = valueOf(little(16777218, 4) + std::string(5, 'a'));
  EXPECT_EQ(fault(table, good), "");
  EXPECT_EQ(fault(table, valueOf(little(16777219, 4))), "");
  for (size_t size = 0; size < good.size(); ++size) {
    SCOPED_TRACE(size);
    EXPECT_NE(fault(table, good.substr(0, size)), "");
  }
  EXPECT_EQ(fault(table, good + 'x'), "its value has 1 bytes too many");
  EXPECT_EQ(fault(table, valueOf(little(5, 4))), "its action 5 is none of the table's type");
}

TEST(ProgrammedTable, ArrayCountsDoNotOverflow) {
  const ProgrammedTable table("table", typeOf("key port : U16; weights : U64[];"));
  EXPECT_EQ(fault(table, little(0, 4)), "");
  EXPECT_NE(fault(table, little(0x20000000, 4)), "");  // times 8 is 0 in 32 bits
  EXPECT_NE(fault(table, little(0xffffffff, 4) + std::string(64, 'w')), "");
}

}  // namespace
}  // namespace Forwarder
