#include "platform/vela/Reloads.h"

#include <exception>
#include <utility>

namespace Vela {

void Reloads::workIs(Work work) { works_.push_back(std::move(work)); }

std::vector<std::string> Reloads::run() const {
  std::vector<std::string> lines;
  for (const Work& work : works_) {
    try {
      std::string line = work();
      if (!line.empty()) lines.push_back(std::move(line));
    } catch (const std::exception& e) {
      lines.push_back(e.what());
    }
  }
  return lines;
}

Reloads& TheReloads() {
  static auto* const reloads = new Reloads;  // threads may outlive static destruction
  return *reloads;
}

}  // namespace Vela
