// Identifiers of what the stores hold: upper-case UUIDs.

#pragma once

#include <string>
#include <string_view>

namespace helper {

// A random one.
std::string newIdentifier();
// True for the form of an upper-case UUID.
bool isIdentifier(std::string_view text);

}  // namespace helper
