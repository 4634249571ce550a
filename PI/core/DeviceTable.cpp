#include "PI/core/DeviceTable.h"

namespace pi::core {

bool DeviceTable::maxDevicesIs(size_t maxDevices) {
  const std::lock_guard lock(mutex_);
  if (limited_) return false;
  limited_ = true;
  maxDevices_ = maxDevices;
  return true;
}

bool DeviceTable::maxDevicesDel() {
  const std::lock_guard lock(mutex_);
  if (!limited_) return false;
  limited_ = false;
  maxDevices_ = 0;
  return true;
}

pi_status_t DeviceTable::deviceIs(pi_dev_id_t id, const pi_p4info_t* p4info) {
  const std::lock_guard lock(mutex_);
  if (devices_.count(id)) return PI_STATUS_DEV_ALREADY_ASSIGNED;
  if (devices_.size() >= maxDevices_) return PI_STATUS_DEV_OUT_OF_RANGE;
  devices_.emplace(id, p4info);
  return PI_STATUS_SUCCESS;
}

pi_status_t DeviceTable::p4infoIs(pi_dev_id_t id, const pi_p4info_t* p4info) {
  const std::lock_guard lock(mutex_);
  const auto device = devices_.find(id);
  if (device == devices_.end()) return PI_STATUS_DEV_NOT_ASSIGNED;
  device->second = p4info;
  return PI_STATUS_SUCCESS;
}

pi_status_t DeviceTable::deviceDel(pi_dev_id_t id) {
  const std::lock_guard lock(mutex_);
  return devices_.erase(id) ? PI_STATUS_SUCCESS : PI_STATUS_DEV_NOT_ASSIGNED;
}

bool DeviceTable::has(pi_dev_id_t id) const {
  const std::lock_guard lock(mutex_);
  return devices_.count(id) != 0;
}

const pi_p4info_t* DeviceTable::p4info(pi_dev_id_t id) const {
  const std::lock_guard lock(mutex_);
  const auto device = devices_.find(id);
  return device == devices_.end() ? nullptr : device->second;
}

std::vector<pi_dev_id_t> DeviceTable::ids() const {
  const std::lock_guard lock(mutex_);
  std::vector<pi_dev_id_t> ids;
  for (const auto& [id, p4info] : devices_) ids.push_back(id);
  return ids;
}

DeviceTable& TheDeviceTable() {
  static DeviceTable* const table = new DeviceTable;  // threads may outlive static destruction
  return *table;
}

}  // namespace pi::core
