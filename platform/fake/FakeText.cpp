#include "platform/fake/FakeText.h"

#include <cstdio>

namespace platform::fake {

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte < 0x7f) {
      result += character;
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      result += escaped;
    }
  }
  return result + "\"";
}

std::string quoted(const std::optional<std::string> &text) { return text ? quoted(std::string_view(*text)) : "null"; }

std::string oneLine(const vpnctl::Value &value) {
  if (value.isNull()) return "null";
  if (value.isString()) return quoted(std::string_view(value.string()));
  if (value.type() == vpnctl::Value::Type::boolean) return value.boolValue() ? "true" : "false";
  std::string result;
  const auto separate = [&result] { result += result.empty() ? "" : ", "; };
  if (value.isDictionary()) {
    for (const auto &[key, entry] : value.dictionary()) {
      separate();
      result += key + "=" + oneLine(entry);
    }
    return "{" + result + "}";
  }
  if (value.isArray()) {
    for (const vpnctl::Value &element : value.array()) {
      separate();
      result += oneLine(element);
    }
    return "[" + result + "]";
  }
  return value.description();
}

std::string oneLine(const SecKeychainAttributeList *attributes) {
  if (attributes == nullptr) return "null";
  std::string result;
  for (const SecKeychainAttribute &attribute : *attributes) {
    result += result.empty() ? "" : ", ";
    result += fourCharacters(attribute.tag) + "=";
    result += quoted(std::string_view(static_cast<const char *>(attribute.data), attribute.length));
  }
  return "[" + result + "]";
}

std::string fourCharacters(std::uint32_t code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(code >> shift & 0xff);
  return text;
}

}  // namespace platform::fake
