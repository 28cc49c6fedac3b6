#include "helper/isakmp/Identification.h"

#include <algorithm>
#include <charconv>

#include "helper/isakmp/Header.h"

namespace helper::isakmp {

namespace {

constexpr std::size_t kLongest = 256;

// Four dotted numbers and nothing else.
std::optional<IPv4Bytes> addressFrom(std::string_view text) {
  IPv4Bytes address{};
  for (std::size_t i = 0; i < address.size(); ++i) {
    const std::size_t dot = text.find('.');
    const std::string_view number = text.substr(0, dot);
    const auto [end, error] = std::from_chars(number.begin(), number.end(), address[i]);
    if (error != std::errc() || end != number.end()) return std::nullopt;
    if ((dot == std::string_view::npos) != (i + 1 == address.size())) return std::nullopt;
    text.remove_prefix(std::min(text.size(), number.size() + 1));
  }
  return address;
}

}  // namespace

Identification Identification::of(const IPv4Bytes &address, std::uint8_t protocol, std::uint16_t port) {
  return {ipv4, protocol, port, copyOf(address)};
}

std::optional<Identification> Identification::fromText(std::string_view text) {
  if (const auto address = addressFrom(text)) return of(*address);
  Identification identification;
  const std::size_t at = text.find('@');
  identification.type = at == 0 ? keyID : at == std::string_view::npos ? domainName : userName;
  if (at == 0) text.remove_prefix(1);
  if (text.empty() || text.size() > kLongest) return std::nullopt;
  identification.data.assign(text.begin(), text.end());
  return identification;
}

std::string Identification::text() const {
  std::string text;
  if (const auto numbers = address()) {
    for (const std::uint8_t number : *numbers) text += (text.empty() ? "" : ".") + std::to_string(number);
    return text;
  }
  if (type == keyID) text = "@";
  for (const std::uint8_t byte : data) text += byte > ' ' && byte <= '~' ? static_cast<char>(byte) : '?';
  return text;
}

std::optional<IPv4Bytes> Identification::address() const {
  IPv4Bytes bytes{};
  if (type != ipv4 || data.size() != bytes.size()) return std::nullopt;
  std::copy(data.begin(), data.end(), bytes.begin());
  return bytes;
}

bool Identification::sameName(const Identification &other) const { return type == other.type && data == other.data; }

vpnctl::Result<Identification> decodeIdentification(View body) {
  if (body.size() < 4) return malformed("an identification shorter than its fixed part");
  if (body.size() == 4) return malformed("an identification of nobody");
  if (body.size() > 4 + kLongest) return malformed("an identification that is too long");
  Identification identification{body[0], body[1], read16(body.subspan(2)), copyOf(body.subspan(4))};
  if (identification.type == Identification::ipv4 && !identification.address())
    return malformed("an address of the wrong length");
  return identification;
}

Bytes encode(const Identification &identification) {
  Bytes bytes;
  append8(bytes, identification.type);
  append8(bytes, identification.protocol);
  append16(bytes, identification.port);
  append(bytes, identification.data);
  return bytes;
}

}  // namespace helper::isakmp
