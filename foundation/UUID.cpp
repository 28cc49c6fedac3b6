#include "foundation/UUID.h"

#include <array>
#include <cstdint>
#include <random>

namespace vpnctl {
namespace {

constexpr std::size_t kLength = 36;
constexpr std::string_view kDigits = "0123456789ABCDEF";

constexpr bool isDash(std::size_t position) {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

}  // namespace

std::string newUUID() noexcept {
  std::random_device device;
  std::array<std::uint8_t, 16> random{};
  for (std::uint8_t &byte : random) byte = static_cast<std::uint8_t>(device());
  random[6] = static_cast<std::uint8_t>((random[6] & 0x0f) | 0x40);  // version 4, random
  random[8] = static_cast<std::uint8_t>((random[8] & 0x3f) | 0x80);  // variant 1
  std::string text;
  for (const std::uint8_t byte : random) {
    if (isDash(text.size())) text += '-';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0f];
  }
  return text;
}

bool isUUID(std::string_view text) {
  if (text.size() != kLength) return false;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (isDash(i) ? text[i] != '-' : kDigits.find(text[i]) == std::string_view::npos) return false;
  return true;
}

}  // namespace vpnctl
