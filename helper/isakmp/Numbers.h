// The numbers of ISAKMP and of IKE version 1 (RFC 2407, 2408, 2409, 3526, 3706, 3947, 4753, 4868) that we read or
// write.

#pragma once

#include <cstdint>

namespace helper::isakmp {

enum class PayloadType : std::uint8_t {
  none = 0,
  securityAssociation = 1,
  keyExchange = 4,
  identification = 5,
  certificate = 6,
  certificateRequest = 7,
  hash = 8,
  signature = 9,
  nonce = 10,
  notification = 11,
  deletion = 12,
  vendorID = 13,
  natDetection = 20,
  natOriginalAddress = 21,
  // Of the drafts that became RFC 3947.
  natDetectionDraft = 130,
  natOriginalAddressDraft = 131,
};

enum class ExchangeType : std::uint8_t { main = 2, aggressive = 4, informational = 5, quick = 32 };

inline constexpr std::uint8_t kFlagEncrypted = 1;
inline constexpr std::uint8_t kFlagCommit = 2;

inline constexpr std::uint32_t kIPSecDOI = 1;
inline constexpr std::uint8_t kProtocolISAKMP = 1;
inline constexpr std::uint8_t kProtocolESP = 3;
inline constexpr std::uint8_t kProtocolUDP = 17;
inline constexpr std::uint8_t kTransformKeyIKE = 1;

// Attributes of a transform of phase 1.
namespace phase1 {
inline constexpr std::uint16_t kCipher = 1;
inline constexpr std::uint16_t kHash = 2;
inline constexpr std::uint16_t kAuthentication = 3;
inline constexpr std::uint16_t kGroup = 4;
inline constexpr std::uint16_t kLifeType = 11;
inline constexpr std::uint16_t kLifeDuration = 12;
inline constexpr std::uint16_t kKeyBits = 14;

inline constexpr std::uint16_t kPresharedKey = 1;
}  // namespace phase1

// Attributes of a transform of phase 2; the transform's own number is the cipher.
namespace phase2 {
inline constexpr std::uint16_t kLifeType = 1;
inline constexpr std::uint16_t kLifeDuration = 2;
inline constexpr std::uint16_t kGroup = 3;
inline constexpr std::uint16_t kMode = 4;
inline constexpr std::uint16_t kIntegrity = 5;
inline constexpr std::uint16_t kKeyBits = 6;

inline constexpr std::uint16_t kTransport = 2;
inline constexpr std::uint16_t kUDPTransport = 4;
inline constexpr std::uint16_t kUDPTransportDraft = 61444;
}  // namespace phase2

inline constexpr std::uint16_t kSeconds = 1;  // of both life types

// Types of notifications. Below 16384 they are errors.
namespace notify {
inline constexpr std::uint16_t kInvalidCookie = 4;
inline constexpr std::uint16_t kInvalidMessageID = 9;
inline constexpr std::uint16_t kNoProposalChosen = 14;
inline constexpr std::uint16_t kPayloadMalformed = 16;
inline constexpr std::uint16_t kInvalidKey = 17;
inline constexpr std::uint16_t kInvalidID = 18;
inline constexpr std::uint16_t kInvalidHash = 23;
inline constexpr std::uint16_t kAuthenticationFailed = 24;
inline constexpr std::uint16_t kFirstStatus = 16384;
inline constexpr std::uint16_t kConnected = 16384;
inline constexpr std::uint16_t kResponderLifetime = 24576;
inline constexpr std::uint16_t kInitialContact = 24578;
inline constexpr std::uint16_t kAreYouThere = 36136;
inline constexpr std::uint16_t kHereIAm = 36137;
}  // namespace notify

}  // namespace helper::isakmp
