#include "forwarder/packets/PcapFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "forwarder/base/Answer.h"
#include "platform/vela/Descriptors.h"

namespace Forwarder {
namespace {

constexpr uint32_t longest = 262144;  // bytes of a packet

struct FileHeader {
  uint32_t magic = 0xa1b2c3d4;
  uint16_t major = 2;
  uint16_t minor = 4;
  int32_t zone = 0;
  uint32_t accuracy = 0;
  uint32_t longest = Forwarder::longest;
  uint32_t linkType = 1;  // Ethernet
};
static_assert(sizeof(FileHeader) == 24);

struct RecordHeader {
  uint32_t seconds;
  uint32_t microseconds;
  uint32_t size;
  uint32_t sizeOnWire;
};
static_assert(sizeof(RecordHeader) == 16);

// Without waiting for the other end of a pipe.
std::FILE* openFile(const std::string& path) {
  if (!path.starts_with('/')) {
    throw CommandError(
        "pcap: give the file's path from /; the forwarder has a directory of its own");
  }
  Vela::UniqueFd descriptor(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644));
  struct stat about {};
  int error = 0;
  if (!descriptor || fstat(descriptor.get(), &about) != 0) {
    error = errno;
  } else if (!S_ISREG(about.st_mode)) {
    throw CommandError(fmt::format("pcap: {} is no ordinary file", path));
  }
  std::FILE* file = error ? nullptr : fdopen(descriptor.get(), "wb");
  if (!file) {
    throw CommandError(
        fmt::format("pcap: cannot write {}: {}", path, std::strerror(error ? error : errno)));
  }
  (void)descriptor.release();
  return file;
}

}  // namespace

PcapTime pcapTimeNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec / 1000)};
}

PcapFile::PcapFile(std::string path) : path_(std::move(path)), file_(openFile(path_)) {
  const FileHeader header;
  put(&header, sizeof header);
  flush();
  if (!trouble_.empty()) throw CommandError("pcap: " + trouble_);
}

void PcapFile::write(std::span<const uint8_t> frame, const PcapTime& time) {
  if (!trouble_.empty()) return;
  const auto size = static_cast<uint32_t>(frame.size());
  if (bytes_ + sizeof(RecordHeader) + size > maxBytes) {
    return doEnd(fmt::format("{} has reached {} bytes; no more is written", path_, maxBytes));
  }
  const RecordHeader header{time.seconds, time.microseconds, size, size};
  put(&header, sizeof header);
  put(frame.data(), frame.size());
}

void PcapFile::put(const void* bytes, size_t size) {
  if (!trouble_.empty()) return;
  if (std::fwrite(bytes, 1, size, file_.get()) != size) {
    return doEnd(fmt::format("cannot write {}: {}", path_, std::strerror(errno)));
  }
  bytes_ += size;
  unflushed_ = true;
}

void PcapFile::flush() {
  if (!unflushed_ || !trouble_.empty()) return;
  unflushed_ = false;
  if (std::fflush(file_.get()) != 0) {
    doEnd(fmt::format("cannot write {}: {}", path_, std::strerror(errno)));
  }
}

void PcapFile::doEnd(std::string trouble) {
  trouble_ = std::move(trouble);
  file_.reset();
}

}  // namespace Forwarder
