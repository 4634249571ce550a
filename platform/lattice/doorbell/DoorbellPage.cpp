#include "platform/lattice/doorbell/DoorbellPage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Lattice {
namespace {

// A page that shrinks would end the process that looks at it.
constexpr int neededSeals = F_SEAL_SHRINK;

DoorbellWords* mapped(int descriptor) {
  void* const page =
      mmap(nullptr, DoorbellPage::size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  return page == MAP_FAILED ? nullptr : static_cast<DoorbellWords*>(page);
}

bool isSoundPage(int descriptor) {
  struct stat file {};
  const int seals = fcntl(descriptor, F_GET_SEALS);
  return seals >= 0 && (seals & neededSeals) == neededSeals && fstat(descriptor, &file) == 0 &&
         file.st_size >= static_cast<off_t>(DoorbellPage::size);
}

}  // namespace

std::shared_ptr<DoorbellPage> DoorbellPage::make() {
  Vela::UniqueFd file(memfd_create("korvel-doorbell", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const bool isSized =
      file && ftruncate(file.get(), size) == 0 &&
      fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
  DoorbellWords* const words = isSized ? mapped(file.get()) : nullptr;
  if (!words) return nullptr;
  return std::shared_ptr<DoorbellPage>(new DoorbellPage(words, std::move(file)));
}

std::shared_ptr<DoorbellPage> DoorbellPage::open(const Vela::UniqueFd& descriptor) {
  DoorbellWords* const words = isSoundPage(descriptor.get()) ? mapped(descriptor.get()) : nullptr;
  if (!words) return nullptr;
  return std::shared_ptr<DoorbellPage>(new DoorbellPage(words, {}));
}

DoorbellPage::~DoorbellPage() { munmap(words_, size); }

}  // namespace Lattice
