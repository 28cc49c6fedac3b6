#include "helper/common/IPv4Address.h"

#include <arpa/inet.h>

#include <array>

namespace helper {

std::string textOf(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text.data();
}

std::optional<in_addr> addressFrom(const std::string &text) {
  in_addr address{};
  if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address;
}

}  // namespace helper
