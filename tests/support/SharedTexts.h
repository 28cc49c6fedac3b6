// A binary property list that is far shorter than what it says.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace support {

// {"F": [TEXT, TEXT, ...]}, where the same text of at most 65535 ASCII characters stands COUNT times; it is in the
// bytes once, and each time takes two.
inline std::string sharedTexts(std::uint64_t count, std::string_view text) {
  const auto number = [](std::uint64_t value, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
  };
  std::string bytes = "bplist00";
  std::string offsets;
  const auto add = [&](const std::string &object) {
    offsets += number(bytes.size(), 4);
    bytes += object;
  };
  add(std::string("\xd1\0\1\0\2", 5));
  add("\x51\x46");
  std::string references;
  for (std::uint64_t i = 0; i < count; ++i) references += number(3, 2);
  add("\xaf\x12" + number(count, 4) + references);
  add("\x5f\x11" + number(text.size(), 2) + std::string(text));
  const std::uint64_t table = bytes.size();
  return bytes + offsets + std::string(6, '\0') + "\4\2" + number(4, 8) + number(0, 8) + number(table, 8);
}

}  // namespace support
