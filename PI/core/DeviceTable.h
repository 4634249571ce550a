// The assigned devices and their programs.
// Thread-safe; holds its lock only while it looks, never while it calls out.
#pragma once

#include <map>
#include <mutex>
#include <vector>

#include "PI/pi_base.h"

namespace pi::core {

class DeviceTable {
 public:
  // The limit for devices assigned from now on. False when it had been set and not been cleared.
  bool maxDevicesIs(size_t maxDevices);
  // True when there was one to clear.
  bool maxDevicesDel();

  // DEV_ALREADY_ASSIGNED, DEV_OUT_OF_RANGE. Borrows the p4info until deviceDel().
  pi_status_t deviceIs(pi_dev_id_t id, const pi_p4info_t* p4info);
  pi_status_t p4infoIs(pi_dev_id_t id, const pi_p4info_t* p4info);  // DEV_NOT_ASSIGNED
  pi_status_t deviceDel(pi_dev_id_t id);                            // DEV_NOT_ASSIGNED

  bool has(pi_dev_id_t id) const;
  const pi_p4info_t* p4info(pi_dev_id_t id) const;  // null when not assigned
  std::vector<pi_dev_id_t> ids() const;

 private:
  mutable std::mutex mutex_;  // guards the members below
  bool limited_ = false;
  size_t maxDevices_ = 0;
  std::map<pi_dev_id_t, const pi_p4info_t*> devices_;
};

DeviceTable& TheDeviceTable();

}  // namespace pi::core
