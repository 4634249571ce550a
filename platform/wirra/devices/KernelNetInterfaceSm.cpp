// Devices are kept by index, as the kernel does; the directory has them by name.
#include "platform/wirra/devices/KernelNetInterfaceSm.h"

#include <chrono>
#include <set>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/scrivel/Trace.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/Timer.h"
#include "platform/wirra/devices/LinkSocket.h"

namespace Wirra {

static Scrivel::TraceHandle trace("KernelNetInterfaceSm");

struct KernelNetInterfaceSm::Impl {
  Impl(Vela::ReactorLoop& loop, Vela::Ptr<KernelNetInterfaceStatus> table);
  ~Impl() { watch->descriptorIs(-1); }

  void handleEvents();
  void doReadAll();
  void doApply(const Link& link);
  void doRemove(uint32_t index);

  const Vela::Ptr<KernelNetInterfaceStatus> status;
  LinkEvents events;
  const Vela::Ptr<Vela::FileDescriptor> watch;
  Vela::Timer again;
  std::unordered_map<uint32_t, Vela::Ptr<KernelNetInterface>> byIndex;
  bool lost = false;  // events were; the devices are to be read again
};

KernelNetInterfaceSm::Impl::Impl(Vela::ReactorLoop& loop, Vela::Ptr<KernelNetInterfaceStatus> table)
    : status(std::move(table)),
      watch(Vela::make<Vela::FileDescriptor>(loop, "kernel devices")),
      again(loop, [this] { handleEvents(); }) {
  doReadAll();  // events are followed already: changes from here on are told
  watch->descriptorIs(events.descriptor());
  watch->onReadableIs([this] { handleEvents(); });
}

void KernelNetInterfaceSm::Impl::handleEvents() {
  constexpr size_t mostPerTurn = 256;
  std::vector<Link> links;
  if (!events.read(mostPerTurn, &links)) lost = true;
  if (!lost) {
    for (const Link& link : links) doApply(link);
    return;
  }
  SCRIVEL_TRACE(0, "events of kernel devices were lost; reading all devices anew");
  try {
    doReadAll();
    lost = false;
  } catch (const std::system_error& e) {
    SCRIVEL_TRACE(0, e.what());
    again.start(std::chrono::milliseconds(200));
  }
}

void KernelNetInterfaceSm::Impl::doReadAll() {
  const std::vector<Link> links = allLinks();
  std::set<uint32_t> gone;
  for (const auto& [index, device] : byIndex) gone.insert(index);
  for (const Link& link : links) gone.erase(link.index);
  for (const uint32_t index : gone) doRemove(index);
  for (const Link& link : links) doApply(link);
}

void KernelNetInterfaceSm::Impl::doRemove(uint32_t index) {
  const auto found = byIndex.find(index);
  if (found == byIndex.end()) return;
  const auto device = found->second;
  byIndex.erase(found);
  SCRIVEL_TRACE(1, device->name(), " removed, index ", index);
  if (status->entity(device->name()).get() == device.get()) status->entityDel(device->name());
}

void KernelNetInterfaceSm::Impl::doApply(const Link& link) {
  if (link.removed) return doRemove(link.index);
  const auto known = byIndex.find(link.index);
  if (known != byIndex.end() && known->second->name() != link.name)
    doRemove(link.index);  // renamed
  Vela::Ptr<KernelNetInterface>& slot = byIndex[link.index];
  if (!slot) slot = Vela::make<KernelNetInterface>(link.name);
  const auto device = slot;
  device->ifIndexIs(link.index);
  device->kindIs(link.kind);
  device->loopbackIs(link.loopback);
  device->macIs(link.mac);
  device->mtuIs(link.mtu);
  device->vrfTableIs(link.vrfTable);
  device->adminUpIs(link.adminUp);
  device->operUpIs(link.operUp);
  SCRIVEL_TRACE(2, link.name, " index ", link.index, " up ", link.adminUp, " running ",
                link.operUp);
  status->entityIs(link.name, device);  // tells only when it is another one
}

KernelNetInterfaceSm::KernelNetInterfaceSm(Vela::ReactorLoop& loop,
                                           Vela::Ptr<KernelNetInterfaceStatus> status)
    : impl_(std::make_unique<Impl>(loop, std::move(status))) {}

KernelNetInterfaceSm::~KernelNetInterfaceSm() = default;

}  // namespace Wirra
