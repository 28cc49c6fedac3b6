#include "helper/common/ServerAddress.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string_view>
#include <utility>

#include "helper/common/IPv4Address.h"

namespace helper {

namespace {

constexpr std::size_t kLongestName = 253;  // RFC 1035 section 2.3.4, as text

vpnctl::Error sentence(std::string text) { return {"ServerAddress", 0, std::move(text)}; }

bool isHostName(std::string_view text) {
  const auto allowed = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
  };
  // Without a letter it is a number that went wrong, and the system's resolver would guess at it ("1.2" is 1.0.0.2).
  const auto letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  return text.size() <= kLongestName && std::all_of(text.begin(), text.end(), allowed) &&
         std::any_of(text.begin(), text.end(), letter) && text.front() != '-' && text.front() != '.' &&
         text.find("..") == std::string_view::npos && text.substr(0, 2) != "0x";
}

}  // namespace

bool canBeServer(in_addr address) {
  const std::uint32_t number = ntohl(address.s_addr);
  return number >> 24 != 0 && number >> 28 < 0xe;  // neither "this network" nor multicast and beyond
}

vpnctl::Result<in_addr> serverAddressFrom(const std::string &text) {
  in6_addr other{};
  if (text.empty()) return sentence("The configuration names no server; set its address or its name.");
  if (const auto address = addressFrom(text)) {
    if (canBeServer(*address)) return *address;
    return sentence("No server can have the address " + text + "; set the address or the name of the VPN server.");
  }
  if (inet_pton(AF_INET6, text.c_str(), &other) == 1)
    return sentence(
        "The server address " + text +
        " is an IPv6 address, and these tunnels run over IPv4 only; set the server's IPv4 address or name.");
  if (!isHostName(text))
    return sentence("The server address \"" + text.substr(0, kLongestName) +
                    "\" is neither an IPv4 address nor the name of a host.");
  return in_addr{INADDR_ANY};
}

}  // namespace helper
