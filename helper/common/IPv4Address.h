// IPv4 addresses and networks as text.

#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

namespace helper {

// Dotted numbers.
std::string textOf(in_addr address);
// None for whatever is not four dotted numbers and nothing else.
std::optional<in_addr> addressFrom(const std::string &text);

struct IPv4Network {
  in_addr address{};
  int prefixLength = 0;  // as it is made, all of IPv4
};
bool operator==(const IPv4Network &a, const IPv4Network &b);

bool contains(const IPv4Network &network, in_addr address);

// "10.0.0.0/8".
std::string textOf(const IPv4Network &network);
// None for whatever is not that, also when the address has bits behind the prefix.
std::optional<IPv4Network> networkFrom(const std::string &text);

}  // namespace helper
