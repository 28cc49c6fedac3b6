#include "helper/isakmp/Header.h"

#include <algorithm>

namespace helper::isakmp {

namespace {

constexpr std::uint8_t kVersion = 0x10;
constexpr std::uint8_t kKnownFlags = kFlagEncrypted | kFlagCommit;  // the third says: authenticated, not encrypted

bool isKnown(std::uint8_t exchange) {
  switch (static_cast<ExchangeType>(exchange)) {
    case ExchangeType::main:
    case ExchangeType::aggressive:
    case ExchangeType::informational:
    case ExchangeType::quick:
      return true;
  }
  return false;
}

}  // namespace

vpnctl::Error malformed(std::string reason) { return {"ISAKMP", 0, std::move(reason)}; }

vpnctl::Result<Header> decodeHeader(View datagram) {
  if (datagram.size() < kHeaderSize) return malformed("shorter than a header");
  if (datagram.size() > kLongestMessage) return malformed("too long");
  if (datagram[17] != kVersion) return malformed("another version");
  if (!isKnown(datagram[18])) return malformed("an unknown exchange");
  if ((datagram[19] & ~kKnownFlags) != 0) return malformed("unknown flags");
  if (read32(datagram.subspan(24)) != datagram.size()) return malformed("a length that is not the datagram's");
  Header header;
  std::copy_n(datagram.begin(), 8, header.cookies.initiator.begin());
  std::copy_n(datagram.begin() + 8, 8, header.cookies.responder.begin());
  if (header.cookies.initiator == Cookie{}) return malformed("no initiator cookie");
  header.first = static_cast<PayloadType>(datagram[16]);
  header.exchange = static_cast<ExchangeType>(datagram[18]);
  header.flags = datagram[19];
  header.messageID = read32(datagram.subspan(20));
  return header;
}

Bytes encodeHeader(const Header &header, std::size_t size) {
  Bytes bytes;
  bytes.reserve(size);
  append(bytes, header.cookies.initiator);
  append(bytes, header.cookies.responder);
  append8(bytes, static_cast<std::uint8_t>(header.first));
  append8(bytes, kVersion);
  append8(bytes, static_cast<std::uint8_t>(header.exchange));
  append8(bytes, header.flags);
  append32(bytes, header.messageID);
  append32(bytes, static_cast<std::uint32_t>(size));
  return bytes;
}

}  // namespace helper::isakmp
