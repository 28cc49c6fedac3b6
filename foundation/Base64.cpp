#include "foundation/Base64.h"

namespace vpnctl {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The six bits of a character; -1 when it is none of the alphabet.
int sextet(char character) {
  if (character >= 'A' && character <= 'Z') return character - 'A';
  if (character >= 'a' && character <= 'z') return character - 'a' + 26;
  if (character >= '0' && character <= '9') return character - '0' + 52;
  if (character == '+') return 62;
  return character == '/' ? 63 : -1;
}

}  // namespace

std::string base64Encoded(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t start = 0; start < bytes.size(); start += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - start);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = group << 8 | (i < count ? bytes[start + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i) text += i <= count ? kAlphabet[group >> (18 - 6 * i) & 0x3f] : '=';
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> base64Decoded(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t group = 0;
  int characters = 0;  // of the group, padding included
  int padding = 0;
  for (const char character : text) {
    if (character == ' ' || character == '\t' || character == '\n' || character == '\r') continue;
    if (padding > 0 && (character != '=' || characters == 0)) return std::nullopt;
    const int bits = character == '=' ? 0 : sextet(character);
    if (bits < 0) return std::nullopt;
    if (character == '=' && (characters < 2 || ++padding > 2)) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(bits);
    if (++characters < 4) continue;
    if ((padding == 1 && (group & 0xff) != 0) || (padding == 2 && (group & 0xffff) != 0)) return std::nullopt;
    for (int i = 0; i < 3 - padding; ++i) bytes.push_back(static_cast<std::uint8_t>(group >> (16 - 8 * i)));
    group = 0;
    characters = 0;
  }
  if (characters != 0) return std::nullopt;
  return bytes;
}

}  // namespace vpnctl
