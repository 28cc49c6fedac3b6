// The header of every message (RFC 2408, section 3.1).
//
// Thread rule: none of these keeps state.

#pragma once

#include <array>
#include <cstdint>

#include "foundation/Result.h"
#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Numbers.h"

namespace helper::isakmp {

inline constexpr std::size_t kHeaderSize = 28;
inline constexpr std::size_t kLongestMessage = 16384;

using Cookie = std::array<std::uint8_t, 8>;

struct Cookies {
  Cookie initiator{};
  Cookie responder{};  // all 0 in the first message
  bool operator==(const Cookies &) const = default;
};

struct Header {
  Cookies cookies;
  PayloadType first = PayloadType::none;
  ExchangeType exchange = ExchangeType::main;
  std::uint8_t flags = 0;
  std::uint32_t messageID = 0;
  bool operator==(const Header &) const = default;
};

// An error for what is not one whole message of version 1.0 in an exchange that we know.
vpnctl::Result<Header> decodeHeader(View datagram);
// SIZE: of the whole message.
Bytes encodeHeader(const Header &header, std::size_t size);

// What is wrong with bytes from outside, as this room's parsers say it.
vpnctl::Error malformed(std::string reason);

}  // namespace helper::isakmp
