// The conversion of PI bytes to the fields of a row: byte order, prefixes, fields without bytes.
#include <bit>
#include <cassert>
#include <cstdio>
#include <cstring>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4TableInfo");

uint32_t prefixIndex_ = 0;
Lattice::IpGenPrefix prefixes[MaxPrefixes];
uint8_t zeroBuffer[64];
uint8_t zeroWidthField = 0;

constexpr uint32_t bytesOf(uint32_t bits) { return (bits + 7) / 8; }

void fixByteOrder(uint8_t* field, uint32_t size, bool networkOrder) {
  if (size == 1 || networkOrder) return;
  switch (size) {
    case 2:
      std::swap(field[0], field[1]);
      return;
    case 3:
      assert(!"fixByteOrder Size 3 bytes?");
      return;
    case 4:
      std::swap(field[0], field[3]);
      std::swap(field[1], field[2]);
      return;
    default:
      SCRIVEL_TRACE(5, "fixByteOrder", " Unhandled field size: ", size, " bytes");
  }
}

const uint8_t* ipGenPrefixFromAddrLen(const uint8_t* field, uint32_t addrBitWidth) {
  if (!(prefixIndex_ < MaxPrefixes)) {
    std::fprintf(stderr, "Failed(( prefixIndex_ < MaxPrefixes ))  prefixIndex %u\n", prefixIndex_);
    assert(prefixIndex_ < MaxPrefixes);
  }
  if (!((addrBitWidth == 32) || (addrBitWidth == 128))) {
    std::fprintf(stderr,
                 "Failed(( ( addrBitWidth == 32 ) || ( addrBitWidth == 128 ) ))  addrBitWidth %u\n",
                 addrBitWidth);
    assert((addrBitWidth == 32) || (addrBitWidth == 128));
  }
  const uint32_t addressSize = addrBitWidth / 8;
  uint32_t length = 0;
  std::memcpy(&length, field + addressSize, sizeof length);
  Lattice::IpGenPrefix& prefix = prefixes[prefixIndex_++];
  prefix = {};
  prefix.family = addrBitWidth == 32 ? Lattice::IpGenPrefix::ipv4 : Lattice::IpGenPrefix::ipv6;
  prefix.length = static_cast<uint8_t>(length);
  std::memcpy(prefix.address.data(), field, addressSize);
  return reinterpret_cast<const uint8_t*>(&prefix);
}

}  // namespace

void P4TableInfo::onNewRowStarted() { prefixIndex_ = 0; }

void P4TableInfo::extractFields(ResourceId tableId, uint32_t numFields, uint8_t* data,
                                uint32_t& count, const uint8_t** fields) const {
  const FieldBitwidths& widths = fieldBitwidths(tableId);
  uint32_t offset = 0;
  for (uint32_t i = 0; i < numFields; ++i) {
    const uint32_t width = widths.width(i);
    if (width == 0) {
      fields[count++] = &zeroWidthField;
      offset += 1;
      continue;
    }
    const uint32_t size = bytesOf(width);
    uint8_t* field = data + offset;
    fixByteOrder(field, size, widths.fieldInNetworkByteOrder(i));
    if (widths.fieldIsIpPrefix(i)) {
      fields[count++] = ipGenPrefixFromAddrLen(field, width);
      offset += 4;
      ++i;  // the slot of the prefix length
    } else {
      fields[count++] = field;
    }
    offset += size;
  }
}

void P4TableInfo::stuffFields(ResourceId tableId, uint32_t& count, const uint8_t** fields) const {
  std::memset(zeroBuffer, 0, sizeof zeroBuffer);
  const uint32_t slots = fieldBitwidths(tableId).slots();
  for (uint32_t i = 0; i < slots; ++i) fields[count++] = zeroBuffer;
}

}  // namespace P4Runtime
