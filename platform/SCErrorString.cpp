#include <array>
#include <string>
#include <system_error>
#include <utility>

#include "platform/SystemConfiguration.h"

namespace platform {
namespace {

constexpr std::array<std::pair<std::int32_t, const char *>, 20> kPhrases{{
    {kSCStatusOK, "No error"},
    {kSCStatusFailed, "The operation failed"},
    {kSCStatusInvalidArgument, "Invalid argument"},
    {kSCStatusAccessError, "Access refused"},
    {kSCStatusNoKey, "No such entry"},
    {kSCStatusKeyExists, "The entry exists already"},
    {kSCStatusLocked, "Locked already"},
    {kSCStatusNeedLock, "The lock is needed first"},
    {kSCStatusNoStoreSession, "No session with the VPN service"},
    {kSCStatusNoStoreServer, "The VPN service is not there"},
    {kSCStatusNotifierActive, "Notifications are active already"},
    {kSCStatusNoPrefsSession, "No session with the preferences"},
    {kSCStatusPrefsBusy, "The preferences are in use"},
    {kSCStatusNoConfigFile, "No preferences file"},
    {kSCStatusNoLink, "The link leads nowhere"},
    {kSCStatusStale, "The preferences have changed meanwhile"},
    {kSCStatusMaxLink, "Too many links"},
    {kSCStatusReachabilityUnknown, "Reachability cannot be told"},
    {kSCStatusConnectionNoService, "No such network service"},
    {kSCStatusConnectionIgnore, "The connection is ignored"},
}};

// PPP exit statuses are printed through this table too, so the range ends where BSD's errno values do, not Linux's.
constexpr std::int32_t kLastErrno = 106;

}  // namespace

std::string SCErrorString(std::int32_t status) {
  for (const auto &[code, phrase] : kPhrases)
    if (code == status) return phrase;
  if (status >= 1 && status <= kLastErrno) return std::generic_category().message(status);
  return "Unknown error: " + std::to_string(status);
}

}  // namespace platform
