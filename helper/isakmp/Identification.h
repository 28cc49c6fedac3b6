// The body of an identification payload (RFC 2407, section 4.6.2): who somebody is, or which packets are meant.
//
// Thread rule: as plain values.

#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "helper/isakmp/Bytes.h"

namespace helper::isakmp {

using IPv4Bytes = std::array<std::uint8_t, 4>;

struct Identification {
  enum Type : std::uint8_t { ipv4 = 1, domainName = 2, userName = 3, keyID = 11 };

  std::uint8_t type = ipv4;
  std::uint8_t protocol = 0;
  std::uint16_t port = 0;
  Bytes data;

  static Identification of(const IPv4Bytes &address, std::uint8_t protocol = 0, std::uint16_t port = 0);
  // As people write it: an address, "user@name", "@group", any other text is a name. None for "" and what is too long.
  static std::optional<Identification> fromText(std::string_view text);
  // The same way; what is not printable becomes "?".
  std::string text() const;

  // The address, if it is one.
  std::optional<IPv4Bytes> address() const;
  // Whether OTHER names the same, whatever protocol and port it says.
  bool sameName(const Identification &other) const;
  bool operator==(const Identification &) const = default;
};

vpnctl::Result<Identification> decodeIdentification(View body);
Bytes encode(const Identification &identification);

}  // namespace helper::isakmp
