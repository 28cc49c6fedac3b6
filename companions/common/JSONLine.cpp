#include "companions/common/JSONLine.h"

#include <array>
#include <cstdio>
#include <ctime>

#include "foundation/Text.h"

namespace companions {

namespace {

void appendQuoted(std::string &json, std::string_view text) {
  json += '"';
  for (std::size_t index = 0; index < text.size();) {
    const auto character = vpnctl::nextCharacter(text, &index);
    if (!character) {
      vpnctl::appendCharacter(&json, 0xfffd);
      ++index;
    } else if (*character == '"' || *character == '\\') {
      json += '\\';
      json += static_cast<char>(*character);
    } else if (*character < ' ' || *character == 0x7f) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(*character));
      json += escape.data();
    } else {
      vpnctl::appendCharacter(&json, *character);
    }
  }
  json += '"';
}

}  // namespace

void JSONLine::addName(std::string_view name) {
  if (!members_.empty()) members_ += ',';
  appendQuoted(members_, name);
  members_ += ':';
}

JSONLine &JSONLine::add(std::string_view name, std::string_view text) {
  addName(name);
  appendQuoted(members_, text);
  return *this;
}

JSONLine &JSONLine::add(std::string_view name, std::int64_t number) {
  addName(name);
  members_ += std::to_string(number);
  return *this;
}

JSONLine &JSONLine::add(std::string_view name, const std::vector<std::string> &texts) {
  addName(name);
  members_ += '[';
  for (const std::string &text : texts) {
    if (&text != &texts.front()) members_ += ',';
    appendQuoted(members_, text);
  }
  members_ += ']';
  return *this;
}

JSONLine &JSONLine::addTruth(std::string_view name, bool truth) {
  addName(name);
  members_ += truth ? "true" : "false";
  return *this;
}

JSONLine &JSONLine::addIfAny(std::string_view name, std::string_view text) {
  return text.empty() ? *this : add(name, text);
}

std::string timeStamp() { return timeStamp(std::chrono::system_clock::now()); }

std::string timeStamp(std::chrono::system_clock::time_point moment) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(moment);
  const auto rest = std::chrono::floor<std::chrono::milliseconds>(moment - whole);
  const std::time_t time = std::chrono::system_clock::to_time_t(whole);
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  std::array<char, 32> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(rest.count()));
  return std::string(text.data(), size) + fraction.data();
}

}  // namespace companions
