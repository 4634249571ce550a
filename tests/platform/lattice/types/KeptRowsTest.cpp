// Which changes of a table's type leave its rows as they are.
#include "platform/lattice/types/KeptRows.h"

#include <gtest/gtest.h>

namespace Lattice {
namespace {

TEST(KeptRows, StayWhereEachByteHasItsColumn) {
  const std::string key = "key vrf : U16; key dst : Bits<20> value; key dst_mask : Bits<20> mask;";
  const std::string set = "set 7 { port : U32 named port_t; }";
  const std::string former = key + "action { " + set + " drop 8 { none : Void; } } counter;";
  const struct {
    const char* what;
    std::string next;
    bool areKept;
  } cases[] = {
      {"the same", former, true},
      {"one action more",
       key + "action { " + set + " drop 8 { none : Void; } copy 9 { a : U64; } } counter;", true},
      {"actions in another order", key + "action { drop 8 { none : Void; } " + set + " } counter;",
       true},
      {"another name of an action",
       key + "action { put 7 { port : U32 named port_t; } drop 8 { none : Void; } } counter;",
       true},
      {"names of actions that change places",
       key + "action { drop 7 { port : U32 named port_t; } set 8 { none : Void; } } counter;",
       false},
      {"the name of an action for one that is added",
       key + "action { put 7 { port : U32 named port_t; } drop 8 { none : Void; }"
             "set 9 { none : Void; } } counter;",
       false},
      {"another name of a field",
       "key vrf : U16; key src : Bits<20> value; key dst_mask : Bits<20> mask;"
       "action { " +
           set + " drop 8 { none : Void; } } counter;",
       false},
      {"another name of a parameter",
       key + "action { set 7 { vrf : U32 named port_t; } drop 8 { none : Void; } } counter;",
       false},
      {"one action less", key + "action { " + set + " } counter;", false},
      {"another id", key + "action { " + set + " drop 9 { none : Void; } } counter;", false},
      {"a wider parameter",
       key + "action { set 7 { port : U64; } drop 8 { none : Void; } } counter;", false},
      {"another byte order",
       key + "action { set 7 { port : IpAddr; } drop 8 { none : Void; } } counter;", false},
      {"strings of another list",
       key + "action { set 7 { port : U32 named vrf_t; } drop 8 { none : Void; } } counter;",
       false},
      {"a parameter more",
       key +
           "action { set 7 { port : U32 named port_t; q : U8; } drop 8 { none : Void; } } counter;",
       false},
      {"no counter", key + "action { " + set + " drop 8 { none : Void; } }", false},
      {"a meter", key + "action { " + set + " drop 8 { none : Void; } } meter; counter;", false},
      {"another width of a field",
       "key vrf : U16; key dst : Bits<21> value; key dst_mask : Bits<21> mask;"
       "action { " +
           set + " drop 8 { none : Void; } } counter;",
       false},
      {"another kind of match",
       "key vrf : U16; key dst : Bits<20> low; key dst_mask : Bits<20> high;"
       "action { " +
           set + " drop 8 { none : Void; } } counter;",
       false},
      {"a field less", "key vrf : U16; action { " + set + " drop 8 { none : Void; } } counter;",
       false},
  };
  const auto type = TableType::compile("former", former);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(keepsRows(*type, *TableType::compile("next", c.next)), c.areKept);
  }
}

}  // namespace
}  // namespace Lattice
