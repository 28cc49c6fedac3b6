// How the record writes arguments.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"
#include "platform/Security.h"

namespace platform::fake {

// In double quotes; what is not printable ASCII as \xNN.
std::string quoted(std::string_view text);
// The same, or null.
std::string quoted(const std::optional<std::string> &text);
// On one line: {Key="text", Other=1}; null for a null Value.
std::string oneLine(const vpnctl::Value &value);
// [labl="...", acct="..."].
std::string oneLine(const SecKeychainAttributeList *attributes);
// The four characters.
std::string fourCharacters(std::uint32_t code);
// NAME, or null for an empty reference.
template <class Reference>
std::string reference(const Reference &object, const std::string &name) {
  return object ? name : "null";
}

}  // namespace platform::fake
