// Number and address parsing and printing.
#include "pipeline/ValueText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <optional>

#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";

[[noreturn]] void refuse(std::string_view text, const std::string& reason) {
  throw PipelineError(quoted(text.substr(0, 80)) + ' ' + reason);
}

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 16;
}

// number * factor + digit, in place; false when it no longer fits the bytes.
bool appendDigit(std::string* number, int factor, int digit) {
  int carry = digit;
  for (auto it = number->rbegin(); it != number->rend(); ++it) {
    const int product = static_cast<unsigned char>(*it) * factor + carry;
    *it = static_cast<char>(product & 0xff);
    carry = product >> 8;
  }
  return carry == 0;
}

std::string tooWide(uint32_t bits) {
  return "does not fit " + std::to_string(bits) + (bits == 1 ? " bit" : " bits");
}

std::string numberBytes(std::string_view text, uint32_t bits) {
  int base = 10;
  std::string_view digits = text;
  if (digits.size() > 2 && digits[0] == '0') {
    if (digits[1] == 'x' || digits[1] == 'X') base = 16;
    if (digits[1] == 'b' || digits[1] == 'B') base = 2;
    if (base != 10) digits.remove_prefix(2);
  }
  std::string number((bits + 7) / 8, '\0');
  bool inRange = !number.empty();
  for (const char c : digits) {
    if (c == '_' && &c != &digits.front()) continue;
    const int digit = digitValue(c);
    if (digit >= base) refuse(text, "is no number, address or prefix");
    inRange = inRange && appendDigit(&number, base, digit);
  }
  if (digits.empty()) refuse(text, "is no number");
  if (!inRange || !fits(number, bits)) refuse(text, tooWide(bits));
  return number;
}

std::optional<std::string> macBytes(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 3) {
    const int high = digitValue(text[i]);
    const int low = digitValue(text[i + 1]);
    const bool separated = i + 2 == text.size() || text[i + 2] == ':' || text[i + 2] == '-';
    if (high > 15 || low > 15 || !separated) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

std::optional<std::string> ipBytes(std::string_view text) {
  std::array<char, 16> address{};
  const std::string copy(text);
  const bool v6 = text.find(':') != std::string_view::npos;
  if (inet_pton(v6 ? AF_INET6 : AF_INET, copy.c_str(), address.data()) != 1) return std::nullopt;
  return std::string(address.data(), v6 ? 16 : 4);
}

std::string address(std::string_view bytes) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const std::string copy(bytes);
  inet_ntop(bytes.size() == 4 ? AF_INET : AF_INET6, copy.data(), text.data(), text.size());
  return text.data();
}

std::string mac(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) text += (text.empty() ? "" : ":") + hexText({&byte, 1});
  return text;
}

}  // namespace

std::string valueBytes(std::string_view text, uint32_t bits) {
  if (text.empty()) refuse(text, "is empty; expected a number or an address");
  std::optional<std::string> bytes;
  if (text.find_first_of(":-") != std::string_view::npos) bytes = macBytes(text);
  if (!bytes && text.find_first_of(".:") != std::string_view::npos) {
    bytes = ipBytes(text);
    if (!bytes) refuse(text, "is no address");
  }
  if (!bytes) return numberBytes(text, bits);
  if (bytes->size() * 8 == bits) return *bytes;
  refuse(text, "has " + std::to_string(bytes->size() * 8) + " bits, and the field " +
                   std::to_string(bits));
}

std::string canonicalValue(std::string_view bytes, uint32_t bits) {
  if (bytes.empty()) throw PipelineError("its value is empty");
  const size_t size = (bits + 7) / 8;
  std::string value(size, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    const size_t fromEnd = bytes.size() - i;
    if (fromEnd <= size) {
      value[size - fromEnd] = bytes[i];
    } else if (bytes[i] != '\0') {
      throw PipelineError("0x" + hexText(bytes.substr(0, 40)) + ' ' + tooWide(bits));
    }
  }
  if (!fits(value, bits)) throw PipelineError("0x" + hexText(value) + ' ' + tooWide(bits));
  return value;
}

std::string prefixMask(uint32_t length, uint32_t bits) {
  std::string mask((bits + 7) / 8, '\0');
  const uint32_t unused = static_cast<uint32_t>(mask.size()) * 8 - bits;
  for (uint32_t i = unused; i < unused + std::min(length, bits); ++i) {
    mask[i / 8] = static_cast<char>(static_cast<unsigned char>(mask[i / 8]) | (0x80u >> (i % 8)));
  }
  return mask;
}

std::string fullMask(uint32_t bits) { return prefixMask(bits, bits); }

bool isSubset(std::string_view value, std::string_view mask) {
  for (size_t i = 0; i < value.size(); ++i) {
    if ((value[i] & ~mask[i]) != 0) return false;
  }
  return true;
}

bool isZero(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == '\0'; });
}

bool fits(std::string_view bytes, uint32_t bits) { return isSubset(bytes, fullMask(bits)); }

std::string valueText(std::string_view bytes, std::string_view columnType) {
  if (columnType == "EthAddr" && bytes.size() == 6) return mac(bytes);
  if (columnType == "IpAddr" && bytes.size() == 4) return address(bytes);
  if (columnType == "Ip6Addr" && bytes.size() == 16) return address(bytes);
  if (columnType == "IpGenPrefix" && (bytes.size() == 4 || bytes.size() == 16))
    return address(bytes);
  if (bytes.size() > 8) return "0x" + hexText(bytes);
  uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
  return std::to_string(number);
}

std::string hexText(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += hexDigits[static_cast<unsigned char>(byte) >> 4];
    text += hexDigits[static_cast<unsigned char>(byte) & 0xf];
  }
  return text;
}

std::string bytesOfHex(std::string_view text) {
  if (text.size() % 2 != 0) refuse(text, "has an odd number of hexadecimal digits");
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = digitValue(text[i]);
    const int low = digitValue(text[i + 1]);
    if (high > 15 || low > 15) refuse(text, "is not hexadecimal");
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

}  // namespace Pipeline
