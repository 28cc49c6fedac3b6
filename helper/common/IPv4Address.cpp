#include "helper/common/IPv4Address.h"

#include <arpa/inet.h>

#include <array>

namespace helper {

std::string textOf(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text.data();
}

}  // namespace helper
