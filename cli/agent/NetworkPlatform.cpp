#include "cli/agent/NetworkPlatform.h"

#include <fmt/format.h>
#include <net/if.h>

#include <optional>
#include <string>
#include <system_error>

#include "P4Runtime/companion/BridgingConfig.h"
#include "platform/orrery/EntityTypes.h"
#include "platform/vela/ErrorLine.h"
#include "platform/wirra/devices/InterfaceOperations.h"
#include "platform/wirra/devices/KernelNetInterface.h"
#include "platform/wirra/devices/KernelNetInterfaceSm.h"
#include "platform/wirra/interfaces/InterfaceStatus.h"
#include "platform/wirra/interfaces/InterfaceStatusSm.h"

namespace {

// Room for jumbo frames behind the header of a packet-out.
constexpr unsigned cpuDeviceMtu = 9216;

template <typename T>
Vela::Ptr<T> made(Orrery::Database& database, const std::string& typeName,
                  const std::string& path) {
  Orrery::TheEntityTypes().typeIs<T>(typeName);
  const auto entity = Vela::make<T>(path);
  database.entityIs(path, entity);
  return entity;
}

}  // namespace

struct NetworkPlatform::Impl {
  Impl(Vela::ReactorLoop& reactor, Orrery::Database& database);

  Vela::ReactorLoop& loop;
  const Vela::Ptr<Wirra::KernelNetInterfaceStatus> devices;
  Interface::Directories directories;
  std::optional<Wirra::TapDevice> tap;
  std::optional<Wirra::KernelNetInterfaceSm> devicesSm;
  std::optional<Interface::InterfaceStatusSm> interfacesSm;
};

NetworkPlatform::Impl::Impl(Vela::ReactorLoop& reactor, Orrery::Database& database)
    : loop(reactor),
      devices(made<Wirra::KernelNetInterfaceStatus>(database, "Wirra::KernelNetInterfaceStatus",
                                                    Wirra::kernelDevicesPath())) {
  using namespace Interface;
  database.entityIs(Wirra::defaultKernelDevicesPath, devices);
  directories.all =
      made<AllIntfStatusDir>(database, "Interface::AllIntfStatusDir", "interface/status/all");
  directories.local = made<AllIntfStatusLocalDir>(database, "Interface::AllIntfStatusLocalDir",
                                                  "interface/status/local");
  directories.ethPhy = made<AllEthPhyIntfStatusDir>(database, "Interface::AllEthPhyIntfStatusDir",
                                                    "interface/status/eth/phy/all");
  directories.ethPhyConfig = made<AllEthPhyIntfConfigDir>(
      database, "Interface::AllEthPhyIntfConfigDir", "interface/config/eth/phy/all");
  made<Bridging::Config>(database, "Bridging::Config", "bridging/config");
}

NetworkPlatform::NetworkPlatform(Vela::ReactorLoop& loop, Orrery::Database& database)
    : impl_(std::make_unique<Impl>(loop, database)) {}

NetworkPlatform::~NetworkPlatform() = default;

void NetworkPlatform::createCpuDevice(const std::string& cpuDevice) {
  const bool existed = if_nametoindex(cpuDevice.c_str()) != 0;
  try {
    // Attach even if it exists: it vanishes when its last user exits.
    impl_->tap.emplace(cpuDevice);
    if (existed) return;
    const auto operations = Vela::make<Wirra::InterfaceOperations>();
    (void)operations->mtuIs(cpuDevice, cpuDeviceMtu);
    (void)operations->keepSilent(cpuDevice);  // a kernel without IPv6 refuses
  } catch (const std::system_error& e) {
    if (if_nametoindex(cpuDevice.c_str()) != 0) return;
    throw std::system_error(
        e.code(), fmt::format("the CPU device {} cannot be made, which takes CAP_NET_ADMIN and "
                              "/dev/net/tun; make it beforehand (ip tuntap add {} mode tap "
                              "multi_queue) or leave out --create-cpu-device",
                              cpuDevice, cpuDevice));
  }
}

void NetworkPlatform::start(const std::string& cpuDevice) {
  try {
    impl_->devicesSm.emplace(impl_->loop, impl_->devices);
  } catch (const std::system_error& e) {
    Vela::tellError("{}; packets have no way to ports and controllers", e.what());
  }
  impl_->interfacesSm.emplace(impl_->devices, impl_->directories,
                              Vela::make<Wirra::InterfaceOperations>(), cpuDevice);
}
