// Bytes as they lie on the wire, numbers in network order.
//
// Thread rule: none of these keeps state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace helper::isakmp {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

// Byte by byte: in insert() and resize() g++ 12 sees copies past the end at -O2.
inline void append(Bytes &out, View bytes) {
  for (const std::uint8_t byte : bytes) out.push_back(byte);
}

inline void append8(Bytes &out, std::uint8_t value) { out.push_back(value); }

inline void append16(Bytes &out, std::size_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

inline void append32(Bytes &out, std::uint32_t value) {
  append16(out, value >> 16);
  append16(out, value & 0xffff);
}

// The caller has looked that there are so many.
inline std::uint16_t read16(View bytes) { return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]); }
inline std::uint32_t read32(View bytes) { return std::uint32_t{read16(bytes)} << 16 | read16(bytes.subspan(2)); }

inline Bytes copyOf(View bytes) { return {bytes.begin(), bytes.end()}; }

// Not for secrets: see equalInConstantTime().
inline bool sameBytes(View a, View b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) return false;
  return true;
}

}  // namespace helper::isakmp
