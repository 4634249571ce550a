#include "forwarder/plane/ProgramSource.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Forwarder {
namespace {

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) throw std::runtime_error("cannot read " + path);
  return text.str();
}

}  // namespace

ProgramSource::Stamp ProgramSource::stamp() const {
  struct stat info;
  if (stat((folder_ + "/current").c_str(), &info) != 0) return {};
  return {info.st_ino, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
}

bool ProgramSource::isNew() const { return stamp() != taken_; }

std::optional<PushedProgram> ProgramSource::take() {
  taken_ = stamp();
  if (taken_ == Stamp{}) return std::nullopt;
  std::istringstream mark(contentsOf(folder_ + "/current"));
  PushedProgram pushed;
  uint64_t entries = 0;
  if (!(mark >> pushed.push >> entries)) {
    throw std::runtime_error(folder_ + "/current is damaged");
  }
  pushed.keepsEntries = entries != pushed.push;
  const std::string base = folder_ + "/" + std::to_string(pushed.push);
  pushed.json = contentsOf(base + ".program");
  pushed.names = ProgramNames::parse(contentsOf(base + ".names"));
  return pushed;
}

}  // namespace Forwarder
