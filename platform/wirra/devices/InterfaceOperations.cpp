#include "platform/wirra/devices/InterfaceOperations.h"

#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <netlink/addr.h>
#include <netlink/errno.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/link/inet6.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>

#include "platform/wirra/devices/LinkSocket.h"

namespace Wirra {

namespace {

using Vela::Outcome;
using LinkPtr = std::unique_ptr<rtnl_link, decltype(&rtnl_link_put)>;
using AddressPtr = std::unique_ptr<nl_addr, decltype(&nl_addr_put)>;

LinkPtr link(rtnl_link* made = rtnl_link_alloc()) { return {made, rtnl_link_put}; }

// Null when the text is no MAC address that a device may have.
AddressPtr address(const std::string& mac) {
  nl_addr* parsed = nullptr;
  if (nl_addr_parse(mac.c_str(), AF_LLC, &parsed) < 0) parsed = nullptr;
  AddressPtr result(parsed, nl_addr_put);
  if (!result || nl_addr_get_len(parsed) != ETH_ALEN) return {nullptr, nl_addr_put};
  const auto* bytes = static_cast<const uint8_t*>(nl_addr_get_binary_addr(parsed));
  const bool group = bytes[0] & 1;
  return group ? AddressPtr(nullptr, nl_addr_put) : std::move(result);
}

// One device and the changes asked of it.
class Change {
 public:
  explicit Change(const std::string& device) : socket_(routeSocket()) {
    rtnl_link* found = nullptr;
    error_ = rtnl_link_get_kernel(socket_.get(), 0, device.c_str(), &found);
    if (error_ >= 0) device_ = link(found);
  }
  bool found() const { return device_ != nullptr; }
  bool has(const nl_addr* mac) const {
    nl_addr* own = rtnl_link_get_addr(device_.get());
    return own && nl_addr_cmp(own, mac) == 0;
  }
  using Fill = std::function<void(rtnl_link* change)>;
  int apply(const Fill& fill) {  // 0 or libnl's error
    if (!device_) return error_;
    const LinkPtr change = link();
    if (!change) return -NLE_NOMEM;
    fill(change.get());
    return rtnl_link_change(socket_.get(), device_.get(), change.get(), 0);
  }

 private:
  NetlinkSocket socket_;
  LinkPtr device_ = link(nullptr);
  int error_ = 0;
};

Outcome outcomeOf(const char* what, const std::string& device, int error) {
  if (error >= 0) return {};
  return Outcome::failure(std::string("cannot ") + what + " the network device " + device + ": " +
                          nl_geterror(error));
}

// Runs `work` with a Change of the device.
Outcome applyChange(const char* what, const std::string& device,
                    const std::function<int(Change&)>& work) {
  try {
    Change change(device);
    return outcomeOf(what, device, work(change));
  } catch (const std::system_error& e) {
    return Outcome::failure(e.what());
  }
}

void raise(rtnl_link* change) { rtnl_link_set_flags(change, IFF_UP); }
void lower(rtnl_link* change) { rtnl_link_unset_flags(change, IFF_UP); }
void silence(rtnl_link* change) {
  rtnl_link_inet6_set_addr_gen_mode(change, IN6_ADDR_GEN_MODE_NONE);
}

}  // namespace

Outcome InterfaceOperations::up(const std::string& device, const std::string& mac,
                                bool keepConfigured) {
  const AddressPtr wanted = address(mac);
  if (!mac.empty() && !wanted) {
    return Outcome::failure("cannot bring up the network device " + device + ": " + mac +
                            " is no MAC address of a device (02:00:00:00:00:01 is one)");
  }
  return applyChange("bring up", device, [&](Change& change) {
    if (!keepConfigured) change.apply(silence);  // a kernel without IPv6 refuses: it is silent
    if (!wanted || !change.found() || change.has(wanted.get())) return change.apply(raise);
    const auto raiseWithMac = [&](rtnl_link* both) {
      rtnl_link_set_addr(both, wanted.get());
      raise(both);
    };
    const int error = change.apply(raiseWithMac);
    if (error != -NLE_BUSY) return error;
    const int lowered = change.apply(lower);  // some take another address only while down
    return lowered < 0 ? lowered : change.apply(raiseWithMac);
  });
}

Outcome InterfaceOperations::down(const std::string& device) {
  return applyChange("take down", device, [](Change& change) { return change.apply(lower); });
}

Outcome InterfaceOperations::keepSilent(const std::string& device) {
  return applyChange("silence", device, [](Change& change) { return change.apply(silence); });
}

Outcome InterfaceOperations::mtuIs(const std::string& device, unsigned mtu) {
  return applyChange(("give an MTU of " + std::to_string(mtu) + " to").c_str(), device,
                     [mtu](Change& change) {
                       return change.apply([mtu](rtnl_link* set) { rtnl_link_set_mtu(set, mtu); });
                     });
}

}  // namespace Wirra
