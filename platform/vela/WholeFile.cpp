#include "platform/vela/WholeFile.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

namespace Vela {

void writeWholeFile(const std::string& path, const std::string& text) {
  const std::string next = path + ".next";
  errno = 0;
  std::ofstream file(next, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (file && std::rename(next.c_str(), path.c_str()) == 0) return;
  throw std::system_error(errno ? errno : EIO, std::generic_category(), "cannot write " + path);
}

}  // namespace Vela
