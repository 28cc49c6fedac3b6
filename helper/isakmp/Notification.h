// The bodies of notification and delete payloads (RFC 2408, sections 3.14 and 3.15).
//
// Thread rule: as plain values.

#pragma once

#include <string>

#include "foundation/Result.h"
#include "helper/isakmp/Bytes.h"
#include "helper/isakmp/Numbers.h"

namespace helper::isakmp {

struct Notification {
  std::uint8_t protocol = kProtocolISAKMP;
  std::uint16_t type = 0;
  Bytes spi;
  Bytes data;

  bool isError() const { return type < notify::kFirstStatus; }
  bool operator==(const Notification &) const = default;
};

struct Deletion {
  std::uint8_t protocol = kProtocolESP;
  std::vector<Bytes> spis;  // all of one size
  bool operator==(const Deletion &) const = default;
};

vpnctl::Result<Notification> decodeNotification(View body);
Bytes encode(const Notification &notification);
vpnctl::Result<Deletion> decodeDeletion(View body);
Bytes encode(const Deletion &deletion);

// "NO-PROPOSAL-CHOSEN", or "notification 4711".
std::string notificationName(std::uint16_t type);

}  // namespace helper::isakmp
