#include "p4/execute/Deparser.h"

#include "p4/execute/BitWriter.h"
#include "p4/execute/CopyBytes.h"

namespace P4 {
namespace {

void writeMetadata(const HeaderPlace& header, const uint64_t* state, BitWriter& to) {
  uint64_t words[64];
  for (const FieldPlace& field : header.fields) {
    loadWords(field, state, words);
    for (uint32_t word = field.words(); word-- > 0;)
      to.append(words[word], word + 1 == field.words() ? field.bits - 64u * word : 64u);
  }
}

void writeHeader(const HeaderPlace& header, const Packet& packet, BitWriter& to) {
  const uint64_t* state = packet.state.get();
  const uint8_t* bytes = bytesOf(state) + header.at;
  if (header.varbit == noSlot) return to.append(bytes, 0, header.bytes * 8);
  const uint64_t varbit = state[header.varbit];
  to.append(bytes, 0, header.varbitAt);
  to.append(packet.data, static_cast<uint32_t>(varbit >> 32), static_cast<uint32_t>(varbit));
  to.append(bytes, header.varbitAt, header.bytes * 8 - header.varbitAt);
}

// Where headers are all that there is, none with a varbit field.
size_t deparseBytes(const Image& image, const Packet& packet, uint8_t* to) {
  const uint64_t* state = packet.state.get();
  uint8_t* end = to;
  for (const uint32_t header : image.deparser) {
    const HeaderPlace& place = image.headers[header];
    if (!state[place.valid]) continue;
    copyBytes(end, bytesOf(state) + place.at, place.bytes);
    end += place.bytes;
  }
  const uint32_t payload = packet.size - packet.parsed;
  copyBytes(end, packet.data + packet.parsed, payload);
  return static_cast<size_t>(end - to) + payload;
}

size_t deparseBits(const Image& image, const Packet& packet, uint8_t* to) {
  const uint64_t* state = packet.state.get();
  BitWriter writer(to);
  for (const uint32_t header : image.deparser) {
    const HeaderPlace& place = image.headers[header];
    if (place.metadata)
      writeMetadata(place, state, writer);
    else if (state[place.valid])
      writeHeader(place, packet, writer);
  }
  writer.pad();
  writer.append(packet.data + packet.parsed, 0, (packet.size - packet.parsed) * 8);
  return writer.bytes();
}

}  // namespace

size_t mostBytesOf(const Image& image, const Packet& packet) {
  return image.deparsedBytes + (1 + image.deparsedVarbits) * packet.size + 16;
}

size_t deparse(const Image& image, const Packet& packet, uint8_t* to) {
  return image.deparsesBytes ? deparseBytes(image, packet, to) : deparseBits(image, packet, to);
}

}  // namespace P4
