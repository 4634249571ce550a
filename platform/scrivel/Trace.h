// Tracing: each source file has a handle of its name, and its traces go, unformatted, into rings in
// a memory-mapped file. The last traces survive there when the process dies. A trace that is off
// costs one branch and evaluates nothing.
//
//   static Scrivel::TraceHandle trace("KorvelPiTables");
//   SCRIVEL_TRACE(0, "_pi_batch_begin", " session_handle: ", handle);
//
// Everything here may be used from any thread, from static initialisation on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/scrivel/FileLayout.h"

namespace Scrivel {

// Tracing cannot be set up as asked; the message says why.
class TraceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  unsigned rings = 10;            // one a level; levels beyond the last ring share it
  unsigned ringSize = 1024;       // records a ring, rounded up to a power of two; 512 bytes each
  unsigned maxStringLength = 80;  // bytes; longer texts are cut
  std::string filePrefix;         // "%d" becomes the process id; ".scv" is appended when missing
  std::string directory;          // empty: $SCRIVELDIR, else the working directory
};

// Starts tracing, at the levels that $KORVEL_TRACE says ("KorvelPiTables/0-5,*/0-1"; "*/0" unless
// set; see Levels.h). Does nothing when $SCRIVEL_DISABLE is set. Files of dead processes with the
// same prefix are removed, but the newest three. Later calls open a new file. Throws TraceError;
// tracing then stays as it was.
void initialize(const Options& options);
void shutdown();            // traces are dropped from now on; the file stays
std::string currentFile();  // empty when tracing is off
void flush();               // hands the rings to the file system (msync)
// As $KORVEL_TRACE, while running. Throws TraceError for malformed `levels`.
void levelsAre(std::string_view levels);

class TraceHandle {
 public:
  explicit TraceHandle(const char* name);  // `name` must outlive the handle: a literal
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  bool enabled(unsigned level) const {
    return mask_.load(std::memory_order_relaxed)->load(std::memory_order_relaxed) >> level & 1;
  }
  const char* name() const { return name_; }

 private:
  friend class Registry;
  friend class Recorder;
  const char* name_;
  std::atomic<std::atomic<uint32_t>*> mask_;  // in the trace file while there is one
  std::atomic<uint16_t> number_{noHandle};
};

struct Hex {
  uint64_t value;
};
template <typename T>
Hex hex(T value) {
  return {static_cast<uint64_t>(static_cast<std::make_unsigned_t<T>>(value))};
}

struct Buffer {
  const void* bytes;
  size_t size;
};
inline Buffer buffer(const void* bytes, size_t size) { return {bytes, size}; }

// Stores one record. Holds a slot of the ring from construction to destruction.
class Recorder {
 public:
  Recorder(const TraceHandle& handle, unsigned level);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  template <typename T>
  void add(const T& value) {
    using Plain = std::decay_t<T>;
    if constexpr (std::is_null_pointer_v<Plain>) {
      fixed(Tag::pointer, uint64_t{0});
    } else if constexpr (std::is_same_v<Plain, bool>) {
      fixed(Tag::boolean, uint8_t{value});
    } else if constexpr (std::is_same_v<Plain, char>) {
      text({&value, 1});
    } else if constexpr (std::is_enum_v<Plain>) {
      add(static_cast<std::underlying_type_t<Plain>>(value));
    } else if constexpr (std::is_integral_v<Plain> && std::is_signed_v<Plain>) {
      fixed(Tag::signed64, int64_t{value});
    } else if constexpr (std::is_integral_v<Plain>) {
      fixed(Tag::unsigned64, uint64_t{value});
    } else if constexpr (std::is_floating_point_v<Plain>) {
      fixed(Tag::number, static_cast<double>(value));
    } else if constexpr (std::is_same_v<Plain, Hex>) {
      fixed(Tag::hex, value.value);
    } else if constexpr (std::is_same_v<Plain, Buffer>) {
      bytes(value);
    } else if constexpr (std::is_same_v<Plain, const char*> || std::is_same_v<Plain, char*>) {
      cText(value);
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      text(value);
    } else {
      static_assert(std::is_pointer_v<Plain>, "trace texts, numbers, pointers, hex(), buffer()");
      fixed(Tag::pointer, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value)));
    }
  }

 private:
  template <typename V>
  void fixed(Tag tag, V value) {
    put(tag, &value, sizeof value);
  }
  void cText(const char* value);  // null is shown as "(null)"
  void text(std::string_view value);
  void bytes(const Buffer& value);
  void put(Tag tag, const void* value, size_t size);
  void close();  // later arguments do not fit
  void putLong(Tag whole, Tag cut, const void* value, size_t size);

  SlotHeader* slot_ = nullptr;  // null when the record is dropped
  char* at_ = nullptr;
  char* end_ = nullptr;
  bool closed_ = false;
  uint64_t ticket_ = 0;
  uint32_t maxStringLength_ = 0;
};

template <typename... Args>
[[gnu::noinline, gnu::cold]] void store(const TraceHandle& handle, unsigned level,
                                        const Args&... args) {
  Recorder recorder(handle, level);
  (recorder.add(args), ...);
}

}  // namespace Scrivel

#define SCRIVEL_TRACE(level, ...)                    \
  do {                                               \
    if (__builtin_expect(trace.enabled(level), 0)) { \
      ::Scrivel::store(trace, level, __VA_ARGS__);   \
    }                                                \
  } while (0)
