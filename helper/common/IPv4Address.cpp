#include "helper/common/IPv4Address.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstdint>

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

bool operator==(const IPv4Network &a, const IPv4Network &b) {
  return a.address.s_addr == b.address.s_addr && a.prefixLength == b.prefixLength;
}

bool contains(const IPv4Network &network, in_addr address) {
  const std::uint32_t behind = network.prefixLength == 0 ? UINT32_MAX : (1U << (32 - network.prefixLength)) - 1;
  return ((ntohl(network.address.s_addr) ^ ntohl(address.s_addr)) & ~behind) == 0;
}

std::string textOf(const IPv4Network &network) {
  return textOf(network.address) + "/" + std::to_string(network.prefixLength);
}

std::optional<IPv4Network> networkFrom(const std::string &text) {
  const std::size_t slash = text.find('/');
  const auto address = addressFrom(text.substr(0, slash));
  if (slash == std::string::npos || !address) return std::nullopt;
  IPv4Network network{*address, -1};
  const char *end = text.data() + text.size();
  const auto read = std::from_chars(text.data() + slash + 1, end, network.prefixLength);
  if (read.ec != std::errc() || read.ptr != end || network.prefixLength < 0 || network.prefixLength > 32)
    return std::nullopt;
  const std::uint32_t behind = network.prefixLength == 32 ? 0 : UINT32_MAX >> network.prefixLength;
  if ((ntohl(address->s_addr) & behind) != 0) return std::nullopt;
  return network;
}

}  // namespace helper
