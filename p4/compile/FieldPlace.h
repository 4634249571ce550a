// Where a field lies in the state of a packet, and how it is read and written there.
#pragma once

#include <cstdint>
#include <cstring>

namespace P4 {

// The state of a packet is one run of 64-bit slots. Metadata, validity and the like are slots of
// their own in host order; packet headers lie packed in network order in a region of bytes behind
// them, and are addressed by bytes from the begin of the state.
struct FieldPlace {
  enum class Kind : uint8_t {
    none,    // there is no such field
    slot,    // one slot
    slots,   // several slots, low word first
    packed,  // within eight bytes of a header
    bits,    // anywhere in a header: wider than 64 bits, or across nine bytes
  };
  Kind kind = Kind::none;
  uint8_t lead = 0;  // of `packed` and `bits`: bits before the field in its first byte
  uint16_t bits = 0;
  uint32_t at = 0;  // slot, or byte from the begin of the state
  bool isSigned = false;
  bool saturating = false;

  uint32_t words() const { return (bits + 63u) / 64u; }
  bool wide() const { return kind == Kind::slots || kind == Kind::bits; }
  explicit operator bool() const { return kind != Kind::none; }
};

inline uint64_t loadBigEndian(const uint8_t* from) {
  uint64_t value;
  std::memcpy(&value, from, sizeof value);
  return __builtin_bswap64(value);
}

inline void storeBigEndian(uint8_t* to, uint64_t value) {
  value = __builtin_bswap64(value);
  std::memcpy(to, &value, sizeof value);
}

// A field of 1 to 64 bits that begins `lead` bits into the byte and ends within eight bytes.
inline uint64_t loadPacked(const uint8_t* from, uint32_t lead, uint32_t bits) {
  return loadBigEndian(from) << lead >> (64 - bits);
}

inline void storePacked(uint8_t* to, uint32_t lead, uint32_t bits, uint64_t value) {
  const uint64_t mask = ~uint64_t{0} << (64 - bits) >> lead;
  const uint64_t old = loadBigEndian(to);
  storeBigEndian(to, (old & ~mask) | (value << (64 - bits) >> lead & mask));
}

inline const uint8_t* bytesOf(const uint64_t* state) {
  return reinterpret_cast<const uint8_t*>(state);
}
inline uint8_t* bytesOf(uint64_t* state) { return reinterpret_cast<uint8_t*>(state); }

// One to 64 bits from a bit offset on; no byte behind them is touched.
uint64_t loadBits(const uint8_t* from, uint32_t bit, uint32_t count);
void storeBits(uint8_t* to, uint32_t bit, uint32_t count, uint64_t value);

// The bit pattern in place.words() words, low word first.
void loadWords(const FieldPlace& place, const uint64_t* state, uint64_t* words);
// Cuts to the width. `words` has place.words() of them.
void storeWords(const FieldPlace& place, uint64_t* state, const uint64_t* words);

// loadField() and storeField() of the kinds that take several words, or none.
uint64_t loadWideField(const FieldPlace& place, const uint64_t* state);
void storeWideField(const FieldPlace& place, uint64_t* state, uint64_t value);

// The low 64 bits of the pattern; 0 where there is no field.
inline uint64_t loadField(const FieldPlace& place, const uint64_t* state) {
  if (place.kind == FieldPlace::Kind::slot) return state[place.at];
  if (place.kind == FieldPlace::Kind::packed)
    return loadPacked(bytesOf(state) + place.at, place.lead, place.bits);
  return loadWideField(place, state);
}

// Cuts to the width; nothing happens where there is no field.
inline void storeField(const FieldPlace& place, uint64_t* state, uint64_t value) {
  if (place.kind == FieldPlace::Kind::slot)
    state[place.at] = value & ~uint64_t{0} >> (64 - place.bits);
  else if (place.kind == FieldPlace::Kind::packed)
    storePacked(bytesOf(state) + place.at, place.lead, place.bits, value);
  else
    storeWideField(place, state, value);
}

}  // namespace P4
