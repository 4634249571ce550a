#include "P4Runtime/packet/AddDesiredIntfSm.h"

#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("AddDesiredIntfSm");

}  // namespace

AddDesiredIntfSm::AddDesiredIntfSm(Vela::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                                   Vela::Ptr<Orrery::Directory> pamDesiredIntfDir)
    : Entity("addDesiredIntfSm") {
  allIntfStatusDirIs(std::move(allIntfStatusDir));
  pamDesiredIntfDirIs(std::move(pamDesiredIntfDir));
  handleInitialized();
}

void AddDesiredIntfSm::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  intfChange_ = this->allIntfStatusDir()->entityCollection().observeKeys(
      [this](const std::string& intf) { handleIntf(intf); });
  for (const std::string& intf : this->allIntfStatusDir()->entityNames()) handleIntf(intf);
  initializedIs(true);
}

void AddDesiredIntfSm::handleIntf(const IntfId& intf) {
  const bool wanted = allIntfStatusDir()->entityHas(intf);
  SCRIVEL_TRACE(3, "handleIntf", " intf ", intf, wanted ? " wanted" : " not wanted any more");
  if (!wanted) {
    pamDesiredIntfDir()->entityDel(intf);
  } else if (!pamDesiredIntfDir()->entityHas(intf)) {
    pamDesiredIntfDir()->entityIs(intf, Vela::make<DesiredIntf>(intf));
  }
}

}  // namespace P4Runtime
