// Bytes as tests write them.

#pragma once

#include <string>
#include <string_view>

#include "foundation/Secret.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

// Blanks are for the reader.
inline Bytes fromHex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

inline std::string hex(View bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}
inline std::string hex(const vpnctl::Secret &secret) { return hex(secret.bytes()); }

// COUNT bytes from FIRST on.
inline Bytes sequence(unsigned first, std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(first + i);
  return bytes;
}

}  // namespace helper::isakmp
