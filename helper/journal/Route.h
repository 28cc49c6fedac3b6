// One IPv4 route of the kernel's main table.

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace helper {

struct Route {
  in_addr destination{};
  int prefixLength = 32;
  in_addr gateway{};  // 0: the destination is on the link itself
  in_addr source{};   // 0: the kernel chooses
  std::string interface;
  std::uint32_t metric = 0;  // of several routes to one destination the kernel takes the one with the lowest
};
bool operator==(const Route &a, const Route &b);

}  // namespace helper
