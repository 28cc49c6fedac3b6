// An IPv4 address as text.

#pragma once

#include <netinet/in.h>

#include <string>

namespace helper {

// Dotted numbers.
std::string textOf(in_addr address);

}  // namespace helper
