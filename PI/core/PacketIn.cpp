// Who takes the packets that targets punt.
#include <map>
#include <mutex>
#include <shared_mutex>

#include "PI/pi.h"
#include "PI/target/pi_imp.h"

namespace {

struct Callback {
  PIPacketInCb function = nullptr;
  void* cookie = nullptr;
};

// Held shared while a callback runs, so that none runs any more once its deregistration returned.
struct Callbacks {
  std::shared_mutex mutex;  // guards the callbacks
  std::map<pi_dev_id_t, Callback> ofDevice;
  Callback ofOthers;
};

Callbacks& TheCallbacks() {
  static Callbacks* const callbacks = new Callbacks;  // threads may outlive static destruction
  return *callbacks;
}

}  // namespace

pi_status_t pi_packetin_register_cb(pi_dev_id_t dev_id, PIPacketInCb cb, void* cb_cookie) {
  const std::unique_lock lock(TheCallbacks().mutex);
  TheCallbacks().ofDevice[dev_id] = {cb, cb_cookie};
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_packetin_register_default_cb(PIPacketInCb cb, void* cb_cookie) {
  const std::unique_lock lock(TheCallbacks().mutex);
  TheCallbacks().ofOthers = {cb, cb_cookie};
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_packetin_deregister_cb(pi_dev_id_t dev_id) {
  const std::unique_lock lock(TheCallbacks().mutex);
  TheCallbacks().ofDevice.erase(dev_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_packetin_deregister_default_cb() {
  const std::unique_lock lock(TheCallbacks().mutex);
  TheCallbacks().ofOthers = {};
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_packetin_receive(pi_dev_id_t dev_id, const char* pkt, size_t size) {
  const std::shared_lock lock(TheCallbacks().mutex);
  const auto own = TheCallbacks().ofDevice.find(dev_id);
  const Callback& callback =
      own != TheCallbacks().ofDevice.end() ? own->second : TheCallbacks().ofOthers;
  if (!callback.function) return PI_STATUS_PACKETIN_NO_CB;
  callback.function(dev_id, pkt, size, callback.cookie);
  return PI_STATUS_SUCCESS;
}
