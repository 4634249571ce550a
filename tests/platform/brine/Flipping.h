// Damage to a record of a store, as a stray write or a bad memory cell does it.
#pragma once

#include <fstream>
#include <string>

namespace TestSupport {

// Flips a bit `distance` bytes behind the begin of `bytes`, wherever the file has them.
inline void flipBehind(const std::string& file, const std::string& bytes, size_t distance) {
  std::fstream store(file, std::ios::in | std::ios::out | std::ios::binary);
  std::string head(size_t{8} << 20, '\0');
  store.read(head.data(), static_cast<std::streamsize>(head.size()));
  store.clear();
  for (size_t at = head.find(bytes); at != std::string::npos; at = head.find(bytes, at + 1)) {
    store.seekp(static_cast<std::streamoff>(at + distance));
    store.put(static_cast<char>(head[at + distance] ^ 4));
  }
}

}  // namespace TestSupport
