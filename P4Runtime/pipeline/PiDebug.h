// One-line texts of PI records, for traces. Pure functions; none fails.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_counter.h"
#include "PI/pi_learn.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"

namespace P4Runtime {

std::string stringRepOfBuffer(const char* buf, uint32_t len);  // "{size: 2 buffer=a:ff}"
// Each byte in hexadecimal without leading zeros, separated by colons; leaves the stream decimal.
void dumpBufferToString(std::ostream& stream, const char* buf, size_t len);
std::string piDevTgtToString(const pi_dev_tgt_t& devTgt);
std::string piMatchTypeToString(int type);
std::string piCounterDataToString(const pi_counter_data_t* data);
std::string piActionDataToString(const pi_action_data_s* data);
std::string piMatchKeyToString(const pi_match_key_s* key);
std::string piTableEntryToString(const pi_table_entry_t* entry);
std::string piLearnConfigToString(const pi_learn_config_t* config);
std::string piLearnMsgToString(const pi_learn_msg_t* msg);
std::string piMeterSpecToString(const pi_meter_spec_t* spec);

}  // namespace P4Runtime
