#include "P4Runtime/pipeline/PiDebug.h"

#include <sstream>

namespace P4Runtime {

void dumpBufferToString(std::ostream& stream, const char* buf, size_t len) {
  stream << std::hex;
  for (size_t i = 0; i < len; ++i) {
    if (i > 0) stream << ':';
    stream << static_cast<unsigned>(static_cast<unsigned char>(buf[i]));
  }
  stream << std::dec;
}

std::string stringRepOfBuffer(const char* buf, uint32_t len) {
  std::ostringstream out;
  out << "{size: " << len << " buffer=";
  dumpBufferToString(out, buf, len);
  out << '}';
  return out.str();
}

std::string piDevTgtToString(const pi_dev_tgt_t& devTgt) {
  std::ostringstream out;
  out << "{dev_id: " << devTgt.dev_id << " dev_pipe_mask: 0x" << std::hex << devTgt.dev_pipe_mask
      << '}';
  return out.str();
}

std::string piMatchTypeToString(int type) {
  static const char* const names[] = {"valid???", "exact", "LPM", "Ternary", "range", "END???"};
  return type >= 0 && type < 6 ? names[type] : "";
}

std::string piCounterDataToString(const pi_counter_data_t* data) {
  std::ostringstream out;
  out << "{valid: " << data->valid << " bytes: " << data->bytes << " packets: " << data->packets
      << '}';
  return out.str();
}

std::string piActionDataToString(const pi_action_data_s* data) {
  std::ostringstream out;
  out << "DATA (pinfo(ptr): " << static_cast<const void*>(data->p4info)
      << " action_id: " << data->action_id << " data_size: " << data->data_size << " data=";
  dumpBufferToString(out, data->data, data->data_size);
  out << ')';
  return out.str();
}

std::string piMatchKeyToString(const pi_match_key_s* key) {
  std::ostringstream out;
  out << "{pinfo(ptr): " << static_cast<const void*>(key->p4info) << " table_id: " << key->table_id
      << " priority: " << key->priority << " data_size: " << key->data_size << " data=";
  dumpBufferToString(out, key->data, key->data_size);
  out << '}';
  return out.str();
}

std::string piTableEntryToString(const pi_table_entry_t* entry) {
  std::ostringstream out;
  out << "{entry_type: ";
  if (entry->entry_type == PI_ACTION_ENTRY_TYPE_DATA) {
    out << piActionDataToString(entry->entry.action_data);
  } else if (entry->entry_type == PI_ACTION_ENTRY_TYPE_INDIRECT) {
    out << "INDIRECT (indirect_handle: " << entry->entry.indirect_handle << ')';
  } else {
    out << "NONE";
  }
  out << " entry_properties=(";
  if (entry->entry_properties) {
    out << "valid_properties: " << entry->entry_properties->valid_properties
        << " ttl: " << entry->entry_properties->ttl;
  }
  out << ") direct_res_config(ptr): " << static_cast<const void*>(entry->direct_res_config) << '}';
  return out.str();
}

std::string piLearnConfigToString(const pi_learn_config_t* config) {
  std::ostringstream out;
  out << "{max_size: " << config->max_size << " max_timeout_ns: " << config->max_timeout_ns << '}';
  return out.str();
}

std::string piLearnMsgToString(const pi_learn_msg_t* msg) {
  std::ostringstream out;
  out << "{dev_tgt=" << piDevTgtToString(msg->dev_tgt) << " learn_id: " << msg->learn_id
      << " msg_id: " << msg->msg_id << " num_entries: " << msg->num_entries
      << " entry_size: " << msg->entry_size;
  dumpBufferToString(out, msg->entries, msg->num_entries * msg->entry_size);
  out << '}';
  return out.str();
}

std::string piMeterSpecToString(const pi_meter_spec_t* spec) {
  const char* unit = "default";
  if (spec->meter_unit == PI_METER_UNIT_PACKETS) unit = "packets";
  if (spec->meter_unit == PI_METER_UNIT_BYTES) unit = "bytes";
  const char* type = "default";
  if (spec->meter_type == PI_METER_TYPE_COLOR_AWARE) type = "color-aware";
  if (spec->meter_type == PI_METER_TYPE_COLOR_UNAWARE) type = "color-unaware";
  std::ostringstream out;
  // Readers of these traces know the two words run together.
  out << "{cir: " << spec->cir << " cburst: " << spec->cburst << " pir: " << spec->pir
      << " pburst: " << spec->pburst << " meter_unit: " << unit << "meter_type: " << type << '}';
  return out.str();
}

}  // namespace P4Runtime
