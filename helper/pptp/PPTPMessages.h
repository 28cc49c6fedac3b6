// The control messages of PPTP (RFC 2637, section 2), as values: encoding, decoding, and cutting a byte stream into
// messages. Numbers are in the machine's order here and in network order on the wire.
//
// Thread rule: none of these keeps state, except a PPTPMessageReader, which belongs to one thread.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "foundation/Result.h"

namespace helper::pptp {

inline constexpr std::uint16_t kProtocolVersion = 0x0100;
inline constexpr std::uint8_t kResultOK = 1;  // of every reply

struct StartRequest {
  std::uint16_t version = kProtocolVersion;
  std::uint32_t framingCapabilities = 0;
  std::uint32_t bearerCapabilities = 0;
  std::uint16_t maximumChannels = 0;
  std::uint16_t firmware = 0;
  std::string hostName;  // cut to 64 bytes on the wire
  std::string vendor;
  bool operator==(const StartRequest &) const = default;
};

struct StartReply {
  std::uint16_t version = kProtocolVersion;
  std::uint8_t result = kResultOK;
  std::uint8_t error = 0;
  std::uint32_t framingCapabilities = 0;
  std::uint32_t bearerCapabilities = 0;
  std::uint16_t maximumChannels = 0;
  std::uint16_t firmware = 0;
  std::string hostName;
  std::string vendor;
  bool operator==(const StartReply &) const = default;
};

struct StopRequest {
  std::uint8_t reason = 1;  // 1 none, 2 wrong version, 3 shutting down
  bool operator==(const StopRequest &) const = default;
};

struct StopReply {
  std::uint8_t result = kResultOK;
  std::uint8_t error = 0;
  bool operator==(const StopReply &) const = default;
};

struct EchoRequest {
  std::uint32_t identifier = 0;
  bool operator==(const EchoRequest &) const = default;
};

struct EchoReply {
  std::uint32_t identifier = 0;
  std::uint8_t result = kResultOK;
  std::uint8_t error = 0;
  bool operator==(const EchoReply &) const = default;
};

struct OutgoingCallRequest {
  std::uint16_t callID = 0;  // the sender's
  std::uint16_t serialNumber = 0;
  std::uint32_t minimumSpeed = 0;  // bits per second
  std::uint32_t maximumSpeed = 0;
  std::uint32_t bearerType = 0;
  std::uint32_t framingType = 0;
  std::uint16_t receiveWindow = 0;    // packets
  std::uint16_t processingDelay = 0;  // tenths of a second
  std::string phoneNumber;
  std::string subaddress;
  bool operator==(const OutgoingCallRequest &) const = default;
};

struct OutgoingCallReply {
  std::uint16_t callID = 0;      // the sender's
  std::uint16_t peerCallID = 0;  // ours
  std::uint8_t result = kResultOK;
  std::uint8_t error = 0;
  std::uint16_t cause = 0;
  std::uint32_t connectSpeed = 0;
  std::uint16_t receiveWindow = 0;
  std::uint16_t processingDelay = 0;
  std::uint32_t physicalChannel = 0;
  bool operator==(const OutgoingCallReply &) const = default;
};

struct CallClearRequest {
  std::uint16_t callID = 0;  // the sender's
  bool operator==(const CallClearRequest &) const = default;
};

struct CallDisconnectNotify {
  std::uint16_t callID = 0;  // the sender's
  std::uint8_t result = 0;   // 1 lost carrier, 2 general error, 3 administrative shutdown, 4 by request
  std::uint8_t error = 0;
  std::uint16_t cause = 0;
  bool operator==(const CallDisconnectNotify &) const = default;
};

struct SetLinkInfo {
  std::uint16_t peerCallID = 0;
  std::uint32_t sendACCM = 0xffffffff;
  std::uint32_t receiveACCM = 0xffffffff;
  bool operator==(const SetLinkInfo &) const = default;
};

// A control message that a client has no use for (incoming calls, line errors, or a type of a later day).
struct OtherMessage {
  std::uint16_t type = 0;
  bool operator==(const OtherMessage &) const = default;
};

using Message =
    std::variant<StartRequest, StartReply, StopRequest, StopReply, EchoRequest, EchoReply, OutgoingCallRequest,
                 OutgoingCallReply, CallClearRequest, CallDisconnectNotify, SetLinkInfo, OtherMessage>;

// The bytes of a message. An OtherMessage gives a bare header.
std::vector<std::uint8_t> encode(const Message &message);

// One whole message. An error says what is wrong with it: length, kind, magic cookie.
vpnctl::Result<Message> decode(std::span<const std::uint8_t> bytes);

// Cuts what arrives into messages, however it was split.
class MessageReader {
 public:
  void append(std::span<const std::uint8_t> bytes);
  // The next message; none when more bytes are needed. After an error the stream is lost for good.
  vpnctl::Result<std::optional<Message>> next();

 private:
  std::vector<std::uint8_t> buffer_;
};

}  // namespace helper::pptp
