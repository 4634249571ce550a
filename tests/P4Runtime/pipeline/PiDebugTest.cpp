#include "P4Runtime/pipeline/PiDebug.h"

#include <gtest/gtest.h>

#include <sstream>

namespace P4Runtime {
namespace {

// Pointers are printed as the stream prints them.
std::string text(const void* pointer) {
  std::ostringstream out;
  out << pointer;
  return out.str();
}

TEST(PiDebug, RendersRecordsOnOneLine) {
  char data[] = {0x0a, '\xff', 0x00};
  const auto* p4info = reinterpret_cast<const pi_p4info_t*>(data);
  const std::string at = text(p4info);
  pi_action_data_t action{p4info, 7, 2, data};
  const pi_match_key_t key{p4info, 8, 9, 3, data};
  const pi_counter_data_t counter{3, uint64_t{1} << 40, 5};
  const pi_learn_config_t learnConfig{1, 2};
  pi_learn_msg_t learn{};
  learn.dev_tgt = {1, 0xff};
  learn.learn_id = 2;
  learn.msg_id = 3;
  learn.num_entries = 2;
  learn.entry_size = 1;
  learn.entries = data;
  const pi_entry_properties_t properties{1, 30};
  pi_table_entry_t direct{};
  direct.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
  direct.entry.action_data = &action;
  direct.entry_properties = &properties;
  pi_table_entry_t indirect{};
  indirect.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
  indirect.entry.indirect_handle = 0x100000000;
  const pi_table_entry_t none{};
  const std::string actionText =
      "DATA (pinfo(ptr): " + at + " action_id: 7 data_size: 2 data=a:ff)";
  const std::string nothing = text(nullptr);
  const struct {
    std::string actual;
    std::string expected;
  } cases[] = {
      {stringRepOfBuffer(data, 0), "{size: 0 buffer=}"},
      {stringRepOfBuffer(data, 3), "{size: 3 buffer=a:ff:0}"},
      {piDevTgtToString({1, 0xffff}), "{dev_id: 1 dev_pipe_mask: 0xffff}"},
      {piCounterDataToString(&counter), "{valid: 3 bytes: 1099511627776 packets: 5}"},
      {piActionDataToString(&action), actionText},
      {piMatchKeyToString(&key),
       "{pinfo(ptr): " + at + " table_id: 8 priority: 9 data_size: 3 data=a:ff:0}"},
      {piTableEntryToString(&direct), "{entry_type: " + actionText +
                                          " entry_properties=(valid_properties: 1 ttl: 30)"
                                          " direct_res_config(ptr): " +
                                          nothing + "}"},
      {piTableEntryToString(&indirect),
       "{entry_type: INDIRECT (indirect_handle: 4294967296)"
       " entry_properties=() direct_res_config(ptr): " +
           nothing + "}"},
      {piTableEntryToString(&none),
       "{entry_type: NONE entry_properties=() direct_res_config(ptr): " + nothing + "}"},
      {piLearnConfigToString(&learnConfig), "{max_size: 1 max_timeout_ns: 2}"},
      {piLearnMsgToString(&learn),
       "{dev_tgt={dev_id: 1 dev_pipe_mask: 0xff} learn_id: 2 msg_id: 3 num_entries: 2"
       " entry_size: 1a:ff}"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected);
}

}  // namespace
}  // namespace P4Runtime
