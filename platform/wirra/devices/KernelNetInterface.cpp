#include "platform/wirra/devices/KernelNetInterface.h"

#include <filesystem>
#include <system_error>

namespace Wirra {

namespace {

namespace fs = std::filesystem;

// As `ip netns` names it: its file, mounted under the name.
std::string networkNamespace() {
  std::error_code error;
  for (fs::directory_iterator file("/run/netns", error), end; !error && file != end;
       file.increment(error)) {
    std::error_code different;
    if (fs::equivalent(file->path(), "/proc/self/ns/net", different) && !different) {
      return file->path().filename();
    }
  }
  return "default";
}

}  // namespace

std::string kernelDevicesPath() { return "kni/ns/" + networkNamespace() + "/status"; }

Vela::Ptr<KernelNetInterface> KernelNetInterfaceStatus::device(const std::string& name) const {
  return dynamic_cast<KernelNetInterface*>(entity(name).get());
}

}  // namespace Wirra
