// An IPv4 address as text.

#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

namespace helper {

// Dotted numbers.
std::string textOf(in_addr address);
// None for whatever is not four dotted numbers and nothing else.
std::optional<in_addr> addressFrom(const std::string &text);

}  // namespace helper
