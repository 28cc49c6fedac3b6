#include "foundation/Text.h"

#include <cstring>
#include <stdexcept>

namespace vpnctl {

namespace {

std::string_view cString(const char *text) {
  if (text == nullptr) throw std::invalid_argument("stringWithUTF8String: null C string");
  return text;
}

}  // namespace

std::optional<char32_t> nextCharacter(std::string_view text, std::size_t *index) {
  const auto byte = [&](std::size_t offset) { return static_cast<unsigned char>(text[*index + offset]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  char32_t character = 0;
  char32_t smallest = 0;  // a smaller one would be an overlong form
  if (lead < 0x80) {
    ++*index;
    return lead;
  }
  if ((lead & 0xe0) == 0xc0)
    length = 2, character = lead & 0x1f, smallest = 0x80;
  else if ((lead & 0xf0) == 0xe0)
    length = 3, character = lead & 0x0f, smallest = 0x800;
  else if ((lead & 0xf8) == 0xf0)
    length = 4, character = lead & 0x07, smallest = 0x10000;
  if (length == 0 || text.size() - *index < length) return std::nullopt;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return std::nullopt;
    character = character << 6 | (byte(i) & 0x3f);
  }
  if (character < smallest || character > 0x10ffff || (character >= 0xd800 && character <= 0xdfff)) return std::nullopt;
  *index += length;
  return character;
}

void appendCharacter(std::string *text, char32_t character) {
  if (character > 0x10ffff || (character >= 0xd800 && character <= 0xdfff)) character = 0xfffd;
  const auto append = [text](char32_t byte) { *text += static_cast<char>(byte); };
  if (character < 0x80) {
    append(character);
  } else if (character < 0x800) {
    append(0xc0 | character >> 6);
    append(0x80 | (character & 0x3f));
  } else if (character < 0x10000) {
    append(0xe0 | character >> 12);
    append(0x80 | (character >> 6 & 0x3f));
    append(0x80 | (character & 0x3f));
  } else {
    append(0xf0 | character >> 18);
    append(0x80 | (character >> 12 & 0x3f));
    append(0x80 | (character >> 6 & 0x3f));
    append(0x80 | (character & 0x3f));
  }
}

bool isValidUTF8(std::string_view text) {
  for (std::size_t index = 0; index < text.size();)
    if (!nextCharacter(text, &index)) return false;
  return true;
}

std::size_t utf16Length(std::string_view text) {
  std::size_t units = 0;
  for (std::size_t index = 0; index < text.size();) {
    const std::optional<char32_t> character = nextCharacter(text, &index);
    if (!character) ++index;
    units += character && *character > 0xffff ? 2 : 1;
  }
  return units;
}

std::optional<std::string> stringWithUTF8String(const char *text) {
  const std::string_view bytes = cString(text);
  if (!isValidUTF8(bytes)) return std::nullopt;
  return std::string(bytes);
}

std::optional<Secret> secretWithUTF8String(const char *text) {
  const std::string_view bytes = cString(text);
  if (!isValidUTF8(bytes)) return std::nullopt;
  return Secret(bytes);
}

const std::string &element(const std::optional<std::string> &text) {
  if (!text) throw std::invalid_argument("a container cannot hold a null object");
  return *text;
}

}  // namespace vpnctl
