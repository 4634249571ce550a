#include "platform/wirra/interfaces/InterfaceStatusSm.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "platform/scrivel/Trace.h"

namespace Interface {

static Scrivel::TraceHandle trace("InterfaceStatusSm");

namespace {

using Wirra::KernelNetInterface;

// A device that the kernel builds out of others is no port.
bool ethernetPort(const KernelNetInterface& device) {
  static const char* const built[] = {"bond", "bridge", "ipvlan", "macsec",
                                      "team", "vlan",   "vrf",    "vxlan"};
  return !device.mac().empty() &&
         std::find(std::begin(built), std::end(built), device.kind()) == std::end(built);
}

}  // namespace

struct InterfaceStatusSm::Impl {
  struct Intf {
    Vela::Ptr<KernelNetInterface> device;
    Vela::Ptr<IntfStatus> status;
    Vela::Observation changes;
  };
  struct Wanted {
    Vela::Ptr<EthPhyIntfConfig> config;
    Vela::Observation changes;
  };

  void handleDevice(const std::string& name);
  void handleConfig(const std::string& name);
  void handleAttributes(const std::string& name);
  void doAdd(const Vela::Ptr<KernelNetInterface>& device);
  void doRemove(const std::string& name);
  void maybeConfigure(const std::string& name);

  Vela::Ptr<Wirra::KernelNetInterfaceStatus> devices;
  Directories directories;
  Vela::Ptr<Wirra::InterfaceOperations> operations;
  std::string cpuDevice;
  std::map<std::string, Intf> intfs;
  std::map<std::string, Wanted> wanted;
  Vela::Observation deviceChanges;
  Vela::Observation configChanges;
};

void InterfaceStatusSm::Impl::handleDevice(const std::string& name) {
  SCRIVEL_TRACE(5, "handleDevice", " ", name);
  const auto device = devices->device(name);
  const auto known = intfs.find(name);
  if (known != intfs.end() && known->second.device == device) return;
  if (known != intfs.end()) doRemove(name);
  if (!device || device->loopback() || name == cpuDevice) return;
  doAdd(device);
  maybeConfigure(name);
}

void InterfaceStatusSm::Impl::doAdd(const Vela::Ptr<KernelNetInterface>& device) {
  const std::string& name = device->name();
  Intf& intf = intfs[name];
  intf.device = device;
  intf.status = Vela::make<IntfStatus>(name);
  intf.changes = device->observeAll([this, name](const std::string&) { handleAttributes(name); });
  handleAttributes(name);
  SCRIVEL_TRACE(1, "interface ", name, " added, index ", device->ifIndex());
  directories.all->entityIs(name, intf.status);
  directories.local->entityIs(name, intf.status);
  if (ethernetPort(*device)) directories.ethPhy->entityIs(name, intf.status);
}

void InterfaceStatusSm::Impl::doRemove(const std::string& name) {
  SCRIVEL_TRACE(1, "interface ", name, " removed");
  intfs.erase(name);
  directories.all->entityDel(name);
  directories.local->entityDel(name);
  directories.ethPhy->entityDel(name);
}

void InterfaceStatusSm::Impl::handleAttributes(const std::string& name) {
  SCRIVEL_TRACE(5, "handleAttributes", " ", name);
  const auto found = intfs.find(name);
  if (found == intfs.end()) return;
  const auto device = found->second.device;
  const auto status = found->second.status;
  status->macIs(device->mac());
  status->mtuIs(device->mtu());
  status->adminUpIs(device->adminUp());
  status->operUpIs(device->operUp());
}

void InterfaceStatusSm::Impl::handleConfig(const std::string& name) {
  SCRIVEL_TRACE(5, "handleConfig", " ", name);
  const Vela::Ptr<EthPhyIntfConfig> config =
      dynamic_cast<EthPhyIntfConfig*>(directories.ethPhyConfig->entity(name).get());
  if (!config) {
    wanted.erase(name);
    const auto intf = intfs.find(name);
    if (intf != intfs.end()) intf->second.status->troubleIs("");
    return;
  }
  Wanted& want = wanted[name];
  if (want.config == config) return;
  want.config = config;
  want.changes = config->observeAll([this, name](const std::string&) { maybeConfigure(name); });
  maybeConfigure(name);
}

// Needs both the device and its configuration; the one that comes second asks again.
void InterfaceStatusSm::Impl::maybeConfigure(const std::string& name) {
  const auto want = wanted.find(name);
  const auto intf = intfs.find(name);
  if (want == wanted.end() || intf == intfs.end()) return;
  const auto config = want->second.config;
  const auto status = intf->second.status;
  Vela::Outcome mtu;
  if (config->mtu() != 0) mtu = operations->mtuIs(name, config->mtu());
  const Vela::Outcome state =
      config->enabled() ? operations->up(name, "", true) : operations->down(name);
  const std::string& trouble = mtu.ok() ? state.reason() : mtu.reason();
  if (!trouble.empty()) SCRIVEL_TRACE(0, trouble);
  status->troubleIs(trouble);
}

InterfaceStatusSm::InterfaceStatusSm(Vela::Ptr<Wirra::KernelNetInterfaceStatus> devices,
                                     Directories directories,
                                     Vela::Ptr<Wirra::InterfaceOperations> operations,
                                     std::string cpuDevice)
    : impl_(std::make_unique<Impl>()) {
  Impl* impl = impl_.get();
  impl->devices = std::move(devices);
  impl->directories = std::move(directories);
  impl->operations = std::move(operations);
  impl->cpuDevice = std::move(cpuDevice);
  impl->deviceChanges = impl->devices->entityCollection().observeKeys(
      [impl](const std::string& name) { impl->handleDevice(name); });
  impl->configChanges = impl->directories.ethPhyConfig->entityCollection().observeKeys(
      [impl](const std::string& name) { impl->handleConfig(name); });
  for (const auto& name : impl->directories.ethPhyConfig->entityNames()) impl->handleConfig(name);
  for (const auto& name : impl->devices->entityNames()) impl->handleDevice(name);
}

InterfaceStatusSm::~InterfaceStatusSm() = default;

}  // namespace Interface
