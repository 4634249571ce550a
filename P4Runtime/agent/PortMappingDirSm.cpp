#include "P4Runtime/agent/PortMappingDirSm.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "P4Runtime/companion/DeviceName.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PortMappingDirSm");

using P4RuntimeConfig::portFromText;
using P4RuntimeConfig::PortMappingConfig;

}  // namespace

Vela::Outcome checkIntfName(const std::string& intf, const std::string& cpuDevice) {
  using Vela::Outcome;
  if (intf.size() > DeviceName::longest) {
    return Outcome::failure(fmt::format("interface name '{}' is longer than {} characters",
                                        intf.substr(0, 80), DeviceName::longest));
  }
  if (intf == cpuDevice) {
    return Outcome::failure(
        fmt::format("interface {} is the CPU's, and no port's; choose another interface", intf));
  }
  if (!DeviceName::fromText(intf)) {
    return Outcome::failure(
        fmt::format("'{}' is no name of an interface; 'ip link' lists them", intf));
  }
  return {};
}

std::string intfHeldBy(const std::string& intf, uint32_t port) {
  return fmt::format("interface {} belongs to port {}; unmap that port or choose another interface",
                     intf, port);
}

PortMappingDirSm::PortMappingDirSm(Vela::Ptr<const P4RuntimeConfig::PortMappingConfigDir> configDir,
                                   Vela::Ptr<P4RuntimeConfig::PortMappingStatus> status,
                                   std::string cpuDevice)
    : configDir_(std::move(configDir)),
      status_(std::move(status)),
      cpuDevice_(std::move(cpuDevice)) {
  std::vector<std::string> names = configDir_->entityNames();
  std::stable_sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return portFromText(a).value_or(0) < portFromText(b).value_or(0);
  });
  configsChange_ = configDir_->entityCollection().observeKeys(
      [this](const std::string& name) { handlePortMapping(name); });
  for (const std::string& name : names) handlePortMapping(name);
}

void PortMappingDirSm::handlePortMapping(const std::string& name) {
  SCRIVEL_TRACE(1, "handlePortMapping ", name);
  const Vela::Ptr<Vela::Entity> entity = configDir_->entity(name);
  const auto* config = dynamic_cast<const PortMappingConfig*>(entity.get());
  if (!config) {
    wishes_.erase(name);
    doApply();
    return;
  }
  Wish& wish = wishes_[name];
  wish.config = Vela::Ptr<const PortMappingConfig>(config);
  wish.change = config->intfAttribute().observe([this, name] { handleIntf(name); });
  handleIntf(name);
}

void PortMappingDirSm::handleIntf(const std::string& name) {
  Wish& wish = wishes_.at(name);
  SCRIVEL_TRACE(1, "handleIntf ", name, " ", wish.config->intf());
  if (wish.order == 0 || wish.intf != wish.config->intf()) wish.order = ++lastOrder_;
  wish.intf = wish.config->intf();
  doApply();
}

// Mappings in force first, then the waiting ones in the order of arrival.
std::vector<const PortMappingDirSm::Wish*> PortMappingDirSm::wishesByRight() const {
  std::vector<const Wish*> wishes;
  for (const auto& [name, wish] : wishes_) wishes.push_back(&wish);
  const auto waits = [this](const Wish& wish) {
    const auto port = portFromText(wish.config->name());
    return !port || status_->intfOfPort(*port) != wish.intf;
  };
  std::sort(wishes.begin(), wishes.end(), [&](const Wish* a, const Wish* b) {
    return std::pair(waits(*a), a->order) < std::pair(waits(*b), b->order);
  });
  return wishes;
}

PortMappingDirSm::Mappings PortMappingDirSm::mappings() const {
  Mappings mappings;
  for (const Wish* wish : wishesByRight()) {
    const std::string& name = wish->config->name();
    const auto port = portFromText(name);
    if (!port) {
      mappings.refused[name] = "it is no P4 port id; a port is a number from 0 to 4294967295";
      continue;
    }
    if (wish->intf.empty()) continue;
    if (const Vela::Outcome fit = checkIntfName(wish->intf, cpuDevice_); !fit.ok()) {
      mappings.refused[name] = fit.reason();
      continue;
    }
    const auto [holder, free] = mappings.portOfIntf.try_emplace(wish->intf, *port);
    if (free) {
      mappings.intfOfPort[*port] = wish->intf;
    } else {
      mappings.refused[name] = intfHeldBy(wish->intf, holder->second);
    }
  }
  return mappings;
}

void PortMappingDirSm::doApply() {
  const Mappings next = mappings();
  doApplyMappings(next);
  doApplyRefusals(next);
}

// A port that moves to a free interface is never without one. When several change at once, all of
// them leave before any arrives, lest two meet on an interface.
void PortMappingDirSm::doApplyMappings(const Mappings& mappings) {
  const auto inForce = status_->intfOfPortCollection().values();
  std::vector<std::pair<uint32_t, std::string>> leaving;
  for (const auto& [port, intf] : inForce) {
    const auto next = mappings.intfOfPort.find(port);
    const bool stays = next != mappings.intfOfPort.end() && next->second == intf;
    if (!stays) leaving.emplace_back(port, intf);
  }
  const bool movesAlone = leaving.size() == 1 && mappings.intfOfPort.contains(leaving[0].first) &&
                          mappings.intfOfPort.size() == inForce.size();
  for (const auto& [port, intf] : leaving) {
    status_->portOfIntfDel(intf);
    if (!movesAlone) status_->intfOfPortDel(port);
  }
  for (const auto& [port, intf] : mappings.intfOfPort) {
    status_->portOfIntfIs(intf, port);
    status_->intfOfPortIs(port, intf);
  }
}

void PortMappingDirSm::doApplyRefusals(const Mappings& mappings) {
  std::vector<std::string> over;
  for (const auto& [name, reason] : status_->refusedCollection().values()) {
    if (!mappings.refused.contains(name)) over.push_back(name);
  }
  for (const std::string& name : over) status_->refusedDel(name);
  for (const auto& [name, reason] : mappings.refused) {
    if (status_->refused(name) != reason) SCRIVEL_TRACE(0, "port ", name, " refused: ", reason);
    status_->refusedIs(name, reason);
  }
}

}  // namespace P4Runtime
