// Values of match fields and parameters as people write them, to and from big-endian bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Pipeline {

// The (bits + 7) / 8 bytes, big-endian, of a number of that width: decimal, 0x hexadecimal,
// 0b binary, dotted IPv4 (32 bits), IPv6 (128), MAC (48). Throws PipelineError that says why not.
std::string valueBytes(std::string_view text, uint32_t bits);

// As valueBytes, from big-endian bytes of any length; empty ones are refused.
std::string canonicalValue(std::string_view bytes, uint32_t bits);

// The first `length` of `bits` bits set.
std::string prefixMask(uint32_t length, uint32_t bits);
// All `bits` bits set.
std::string fullMask(uint32_t bits);
bool isSubset(std::string_view value, std::string_view mask);  // of bits; equal lengths
bool isZero(std::string_view bytes);
bool fits(std::string_view bytes, uint32_t bits);  // no bit above the width is set

// By column type: addresses as such, other numbers up to 64 bits in decimal, longer ones in
// hexadecimal. A prefix is given as IpGenPrefix of 32 or 128 bits.
std::string valueText(std::string_view bytes, std::string_view columnType);

std::string hexText(std::string_view bytes);
// Throws PipelineError at an odd length or another character.
std::string bytesOfHex(std::string_view text);

}  // namespace Pipeline
