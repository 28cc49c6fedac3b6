// The codes that the answers on the wire carry: SCError codes for preferences and links, OSStatus codes for keychain
// items and authorization. The numbers are those that the tool's side gives on.

#pragma once

#include <cstdint>
#include <string_view>

namespace wire {

inline constexpr std::string_view kSCErrorDomain = "SCError";

enum : std::int32_t {
  kSCStatusOK = 0,
  kSCStatusFailed = 1001,
  kSCStatusInvalidArgument = 1002,
  kSCStatusAccessError = 1003,
  kSCStatusPrefsBusy = 3002,
  kSCStatusStale = 3005,
  kSCStatusConnectionNoService = 5001,
};

inline constexpr std::string_view kOSStatusDomain = "OSStatus";

enum : std::int32_t {
  errAuthorizationDenied = -60005,
  errAuthorizationCanceled = -60006,
  errAuthorizationInteractionNotAllowed = -60007,
  errAuthorizationInternal = -60008,
  errSecSuccess = 0,
  errSecParam = -50,
  errSecWrPerm = -61,
  errSecNotAvailable = -25291,
  errSecAuthFailed = -25293,
  errSecInvalidKeychain = -25295,
  errSecDuplicateItem = -25299,
  errSecItemNotFound = -25300,
};

}  // namespace wire
