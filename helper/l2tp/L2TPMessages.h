// The control messages of L2TP (RFC 2661, sections 3 to 6), as values: encoding and decoding of one datagram. Numbers
// are in the machine's order here and in network order on the wire.
//
// A datagram is decoded in two steps, since its header counts (acknowledges, must be acknowledged) also when its body
// means nothing: decodePacket(), then decodeBody().
//
// Thread rule: none of these keeps state.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "foundation/Result.h"

namespace helper::l2tp {

inline constexpr std::uint16_t kProtocolVersion = 0x0100;
inline constexpr std::uint16_t kDefaultWindow = 4;  // of a peer that names none

// Results of StopCCN and CDN that we give ourselves (section 4.4.2).
inline constexpr std::uint16_t kResultClear = 1;          // StopCCN: a general request to clear the control connection
inline constexpr std::uint16_t kResultGeneralError = 2;   // both: the error code says which
inline constexpr std::uint16_t kResultNotAuthorized = 4;  // StopCCN
inline constexpr std::uint16_t kResultVersion = 5;        // StopCCN: that protocol version is not supported

// General error codes; those of decodeBody()'s errors, too.
inline constexpr int kErrorLength = 2;
inline constexpr int kErrorValue = 3;
inline constexpr int kErrorUnknownAVP = 8;

struct Header {
  std::uint16_t tunnelID = 0;   // the receiver's; 0 while it has not told its own
  std::uint16_t sessionID = 0;  // likewise
  std::uint16_t ns = 0;
  std::uint16_t nr = 0;
  bool operator==(const Header &) const = default;
};

struct ResultCode {
  std::uint16_t result = 0;
  std::uint16_t error = 0;
  std::string message;  // plain ASCII, cut to 200 bytes
  bool operator==(const ResultCode &) const = default;
};

// Start-Control-Connection-Request, -Reply, -Connected.
struct SCCRQ {
  std::uint16_t version = kProtocolVersion;
  std::uint32_t framingCapabilities = 0;
  std::uint32_t bearerCapabilities = 0;
  std::string hostName;
  std::uint16_t tunnelID = 0;  // the sender's
  std::uint16_t window = kDefaultWindow;
  bool operator==(const SCCRQ &) const = default;
};
struct SCCRP {
  std::uint16_t version = kProtocolVersion;
  std::uint32_t framingCapabilities = 0;
  std::string hostName;
  std::uint16_t tunnelID = 0;  // the sender's
  std::uint16_t window = kDefaultWindow;
  std::vector<std::uint8_t> challenge;  // empty: none
  bool operator==(const SCCRP &) const = default;
};
struct SCCCN {
  bool operator==(const SCCCN &) const = default;
};

// Stop-Control-Connection-Notification.
struct StopCCN {
  std::uint16_t tunnelID = 0;  // the sender's
  ResultCode result;
  bool operator==(const StopCCN &) const = default;
};

struct Hello {
  bool operator==(const Hello &) const = default;
};

// Incoming-Call-Request, -Reply, -Connected.
struct ICRQ {
  std::uint16_t sessionID = 0;  // the sender's
  std::uint32_t serialNumber = 0;
  bool operator==(const ICRQ &) const = default;
};
struct ICRP {
  std::uint16_t sessionID = 0;  // the sender's
  bool operator==(const ICRP &) const = default;
};
struct ICCN {
  std::uint32_t speed = 0;  // bits per second
  std::uint32_t framingType = 0;
  bool operator==(const ICCN &) const = default;
};

// Call-Disconnect-Notify.
struct CDN {
  std::uint16_t sessionID = 0;  // the sender's
  ResultCode result;
  bool operator==(const CDN &) const = default;
};

// A body of no bytes: the header acknowledges, and that is all.
struct ZLB {
  bool operator==(const ZLB &) const = default;
};

// A message that a client has no use for (outgoing calls, line errors), or a type of a later day. KNOWN: of RFC 2661.
struct OtherMessage {
  std::uint16_t type = 0;
  bool mandatory = true;  // whoever does not know it must end the tunnel
  bool known() const;
  bool operator==(const OtherMessage &) const = default;
};

using Message = std::variant<SCCRQ, SCCRP, SCCCN, StopCCN, Hello, ICRQ, ICRP, ICCN, CDN, ZLB, OtherMessage>;

struct Packet {
  Header header;
  std::span<const std::uint8_t> body;  // of the caller's bytes
};

// The bytes of a whole datagram.
std::vector<std::uint8_t> encode(const Header &header, std::span<const std::uint8_t> body);
// The bytes of a message after the header.
std::vector<std::uint8_t> encodeBody(const Message &message);

// A datagram of L2TP version 2 that holds a control message. An error for any other: not for us, to be dropped.
vpnctl::Result<Packet> decodePacket(std::span<const std::uint8_t> datagram);

// An error's code is the general error code that answers it: the message is malformed, or bears something mandatory
// that is unknown or hidden (there is no shared secret to unhide with). What is unknown or hidden and not mandatory is
// left out.
vpnctl::Result<Message> decodeBody(std::span<const std::uint8_t> body);

}  // namespace helper::l2tp
