// Value::description(): how Foundation shows an object to people.

#include <array>
#include <cstdio>

#include "foundation/CLocale.h"
#include "foundation/CalendarDate.h"
#include "foundation/Text.h"
#include "foundation/Value.h"

namespace vpnctl {

namespace {

std::string hexadecimal(unsigned number, int digits) {
  std::array<char, 16> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%0*x", digits, number);
  return {buffer.data(), static_cast<std::size_t>(length)};
}

std::string dataDescription(const Value::Data &data) {
  std::string text = "{length = " + std::to_string(data.size()) + ", bytes = 0x";
  const auto append = [&](std::size_t start, std::size_t end, bool grouped) {
    for (std::size_t i = start; i < end; ++i) {
      text += hexadecimal(data[i], 2);
      if (grouped && i % 4 == (start + 3) % 4) text += ' ';
    }
  };
  if (data.size() <= 24) {
    append(0, data.size(), false);
  } else {
    append(0, 16, true);
    text += "... ";
    append(data.size() - 8, data.size(), true);
  }
  return text + "}";
}

std::string dateDescription(Value::Date date) {
  const std::optional<CalendarDate> calendar = calendarDate(date);
  if (!calendar) return shortestReal(date.secondsSince2001, 16);  // no year of ours: seconds since 2001
  std::array<char, 96> buffer{};
  const int length = std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02d %02d:%02d:%02d +0000", calendar->year,
                                   calendar->month, calendar->day, calendar->hour, calendar->minute, calendar->second);
  return {buffer.data(), static_cast<std::size_t>(length)};
}

bool isBare(std::string_view text) {
  for (const char character : text) {
    const bool letter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    if (!letter && !(character >= '0' && character <= '9')) return false;
  }
  return !text.empty();
}

std::string utf16Escape(char32_t unit) { return "\\U" + hexadecimal(unit, 4); }

// CHARACTER as it stands between quotes.
std::string quotedCharacter(char32_t character) {
  constexpr std::u32string_view kEscaped = U"\"\\\a\b\t\n\v\f\r";
  constexpr std::string_view kLetters = "\"\\abtnvfr";
  if (const std::size_t index = kEscaped.find(character); index != std::u32string_view::npos)
    return {'\\', kLetters[index]};
  if (character >= 0x20 && character < 0x7f) return {static_cast<char>(character)};
  if (character <= 0xffff) return utf16Escape(character);
  return utf16Escape(0xd800 + ((character - 0x10000) >> 10)) + utf16Escape(0xdc00 + (character & 0x3ff));
}

void appendQuoted(std::string *out, std::string_view text) {
  *out += '"';
  for (std::size_t index = 0; index < text.size();) {
    const std::optional<char32_t> character = nextCharacter(text, &index);
    if (!character) ++index;
    *out += quotedCharacter(character.value_or(0xfffd));
  }
  *out += '"';
}

void appendInside(std::string *out, std::string_view text) {
  if (isBare(text))
    *out += text;
  else
    appendQuoted(out, text);
}

void appendDescription(std::string *out, const Value &value, std::size_t level);

void appendElement(std::string *out, const Value &value, std::size_t level) {
  if (value.isArray() || value.isDictionary())
    appendDescription(out, value, level);
  else
    appendInside(out, value.description());
}

void appendDescription(std::string *out, const Value &value, std::size_t level) {
  const std::string indent(4 * (level + 1), ' ');
  if (value.isArray()) {
    *out += "(\n";
    const Value::Array &elements = value.array();
    for (std::size_t i = 0; i < elements.size(); ++i) {
      *out += indent;
      appendElement(out, elements[i], level + 1);
      *out += i + 1 < elements.size() ? ",\n" : "\n";
    }
    *out += std::string(4 * level, ' ') + ")";
  } else {
    *out += "{\n";
    for (const auto &[key, element] : value.dictionary()) {
      *out += indent;
      appendInside(out, key);
      *out += " = ";
      appendElement(out, element, level + 1);
      *out += ";\n";
    }
    *out += std::string(4 * level, ' ') + "}";
  }
}

}  // namespace

std::string Value::description() const {
  switch (type()) {
    case Type::null:
      return "(null)";
    case Type::boolean:
      return std::get<bool>(state_) ? "1" : "0";
    case Type::signedInteger:
      return std::to_string(std::get<std::int64_t>(state_));
    case Type::unsignedInteger:
      return std::to_string(std::get<std::uint64_t>(state_));
    case Type::real:
      return shortestReal(std::get<double>(state_), 16);
    case Type::string:
      return string();
    case Type::data:
      return dataDescription(data());
    case Type::date:
      return dateDescription(date());
    case Type::array:
    case Type::dictionary:
      break;
  }
  std::string text;
  appendDescription(&text, *this, 0);
  return text;
}

}  // namespace vpnctl
