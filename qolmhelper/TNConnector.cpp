#include "qolmhelper/TNConnector.h"

#include <utility>
#include <vector>

#include "foundation/DDLog.h"

namespace TN {
namespace {

constexpr platform::AuthorizationFlags kFlags = platform::kAuthorizationFlagInteractionAllowed |
                                                platform::kAuthorizationFlagExtendRights |
                                                platform::kAuthorizationFlagPreAuthorize;

// LINE is a name of the place, not a position in this file: whoever filters the log knows it.
void logError(std::uint32_t line, const char *format, platform::OSStatus status) {
  vpnctl::DDLog::log(false, vpnctl::DDLogLevelVerbose, vpnctl::DDLogFlagError, 0, "qolmhelper/TNConnector.cpp",
                     "-[TNConnector authorize]", line, nullptr, format, status);
}

// An authorization lives until the process ends, also one that was refused or has been replaced by a later one: giving
// one back takes the right away from everything that was opened with it.
void keepUntilExit(const platform::AuthorizationRef &authorization) {
  static auto *const kept = new std::vector<platform::AuthorizationRef>();
  kept->push_back(authorization);
}

}  // namespace

bool TNConnector::authorize() {
  const platform::AuthorizationRights rights{{"system.preferences", 0, nullptr, 0}};

  platform::AuthorizationRef authorization;
  platform::OSStatus status = platform::AuthorizationCreate(nullptr, nullptr, kFlags, &authorization);
  if (status != platform::errAuthorizationSuccess) {
    logError(36, "Failed to create AuthorizationRef.  Return code was %d", status);
    return false;
  }
  keepUntilExit(authorization);

  status = platform::AuthorizationCopyRights(authorization, rights, nullptr, kFlags, nullptr);
  if (status != platform::errAuthorizationSuccess) {
    logError(44, "Failed to authorize.  Return code was %d", status);
    return false;
  }
  setAuth(std::move(authorization));
  return true;
}

void TNConnector::disconnect() { platform::SCNetworkConnectionStop(connection(), true); }

void TNConnector::connect() {}

void TNConnector::setAuth(platform::AuthorizationRef auth) { auth_ = std::move(auth); }

platform::SCNetworkConnectionRef TNConnector::connection() { return connection_; }

void TNConnector::setConnection(platform::SCNetworkConnectionRef connection) { connection_ = std::move(connection); }

}  // namespace TN
