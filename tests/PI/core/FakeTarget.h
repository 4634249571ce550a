// A target that records its calls, and fetches the bytes that the test gives it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "PI/int/pi_int.h"

struct FakeTarget {
  std::vector<std::string> calls;
  pi_dev_id_t ownDevice = 1;  // the one that _pi_destroy() removes
  pi_status_t assignStatus = PI_STATUS_SUCCESS;
  pi_status_t fetchStatus = PI_STATUS_SUCCESS;

  // Fetched tables.
  std::string entries;
  size_t entryCount = 0;
  size_t keyBytes = 0;

  // Fetched action profiles.
  std::string members;
  size_t memberCount = 0;
  std::string groups;
  size_t groupCount = 0;
  std::vector<pi_indirect_handle_t> memberHandles;
};

// The one that the _pi_* functions of this test program act for.
FakeTarget& TheFakeTarget();

// Little-endian bytes, as targets write them.
template <typename Number>
std::string le(Number number) {
  std::string out;
  for (size_t i = 0; i < sizeof(Number); ++i) out += static_cast<char>(number >> (8 * i));
  return out;
}
