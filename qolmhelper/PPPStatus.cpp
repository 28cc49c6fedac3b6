#include "qolmhelper/PPPStatus.h"

#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace TN {
namespace {

using vpnctl::Value;
using Limits = std::numeric_limits<std::int32_t>;

// The number without loss, or none. A boolean is not a number here.
std::optional<std::int32_t> numberAsSInt32(const Value &value) {
  if (!value.isNumber() || value.type() == Value::Type::boolean) return std::nullopt;
  const double number = value.doubleValue();
  if (number < Limits::min() || number > Limits::max() || number != std::trunc(number)) return std::nullopt;
  return static_cast<std::int32_t>(number);
}

}  // namespace

std::int32_t GetMinorStatus(const platform::SCNetworkConnectionRef &connection) {
  const Value extendedStatus = platform::SCNetworkConnectionCopyExtendedStatus(connection);
  const Value &ppp = extendedStatus[platform::kSCEntNetPPP];
  if (!ppp.isDictionary()) return -1;
  return numberAsSInt32(ppp[platform::kSCPropNetPPPStatus]).value_or(-1);
}

const char *NSStringFromPPPStatus(platform::SCNetworkConnectionPPPStatus status) {
  static constexpr std::array<const char *, 14> kTexts{
      "PPP Network connection disconnected",
      "Initializing PPP network connection",
      "Connecting PPP link",
      "PPP Dial on traffic",
      "Negotiating PPP link",
      "PPP Authenticating",
      "PPP Waiting for call back",
      "PPP negotiating network",
      "PPP Connected",
      "Terminating PPP connection",
      "Disconnecting PPP link",
      "PPP Holding link off",
      "PPP connection suspended",
      "PPP waiting for redial",
  };
  const auto index = static_cast<std::uint32_t>(status);
  return index < kTexts.size() ? kTexts[index] : "Unknown status";
}

}  // namespace TN
