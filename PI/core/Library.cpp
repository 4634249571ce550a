// The library's life, its devices, sessions and batches.
#include <algorithm>

#include "PI/core/DeviceTable.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"

using pi::core::TheDeviceTable;

pi_status_t pi_init(size_t max_devices, pi_remote_addr_t* /*remote_addr*/) {
  if (!TheDeviceTable().maxDevicesIs(max_devices)) return PI_STATUS_SUCCESS;
  const pi_status_t status = _pi_init(nullptr);
  if (status != PI_STATUS_SUCCESS) TheDeviceTable().maxDevicesDel();
  return status;
}

pi_status_t pi_destroy() {
  if (!TheDeviceTable().maxDevicesDel()) return PI_STATUS_SUCCESS;
  const pi_status_t status = _pi_destroy();  // calls pi_remove_device() for its own device
  for (pi_dev_id_t id : TheDeviceTable().ids()) pi_remove_device(id);
  return status;
}

pi_status_t pi_assign_device(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                             pi_assign_extra_t* extra) {
  const pi_status_t placed = TheDeviceTable().deviceIs(dev_id, p4info);
  if (placed != PI_STATUS_SUCCESS) return placed;
  pi_assign_extra_t noExtras{.end_of_extras = 1, .key = nullptr, .v = nullptr};
  const pi_status_t status = _pi_assign_device(dev_id, p4info, extra ? extra : &noExtras);
  if (status != PI_STATUS_SUCCESS) TheDeviceTable().deviceDel(dev_id);
  return status;
}

pi_status_t pi_update_device_start(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                                   const char* device_data, size_t device_data_size) {
  if (!TheDeviceTable().has(dev_id)) return PI_STATUS_DEV_NOT_ASSIGNED;
  const pi_status_t status = _pi_update_device_start(dev_id, p4info, device_data, device_data_size);
  if (status != PI_STATUS_SUCCESS) return status;
  return TheDeviceTable().p4infoIs(dev_id, p4info);
}

pi_status_t pi_update_device_end(pi_dev_id_t dev_id) {
  if (!TheDeviceTable().has(dev_id)) return PI_STATUS_DEV_NOT_ASSIGNED;
  return _pi_update_device_end(dev_id);
}

pi_status_t pi_remove_device(pi_dev_id_t dev_id) {
  // Gone from our table before the target hears of it: of two removals one tells the target.
  const pi_status_t status = TheDeviceTable().deviceDel(dev_id);
  return status == PI_STATUS_SUCCESS ? _pi_remove_device(dev_id) : status;
}

bool pi_is_device_assigned(pi_dev_id_t dev_id) { return TheDeviceTable().has(dev_id); }

size_t pi_num_devices() { return TheDeviceTable().ids().size(); }

size_t pi_get_device_ids(pi_dev_id_t* dev_ids, size_t max) {
  const auto ids = TheDeviceTable().ids();
  const size_t count = std::min(max, ids.size());
  std::copy_n(ids.begin(), count, dev_ids);
  return count;
}

const pi_p4info_t* pi_get_device_p4info(pi_dev_id_t dev_id) {
  return TheDeviceTable().p4info(dev_id);
}

pi_status_t pi_session_init(pi_session_handle_t* session_handle) {
  return _pi_session_init(session_handle);
}

pi_status_t pi_session_cleanup(pi_session_handle_t session_handle) {
  return _pi_session_cleanup(session_handle);
}

pi_status_t pi_batch_begin(pi_session_handle_t session_handle) {
  pi_batch_failed_set(0);
  return _pi_batch_begin(session_handle);
}

pi_status_t pi_batch_end(pi_session_handle_t session_handle, bool hw_sync) {
  return _pi_batch_end(session_handle, hw_sync);
}

pi_status_t pi_packetout_send(pi_dev_id_t dev_id, const char* pkt, size_t size) {
  return _pi_packetout_send(dev_id, pkt, size);
}
