#include "platform/linux/DefaultConfiguration.h"

#include "foundation/UUID.h"
#include "platform/linux/Preferences.h"

namespace platform {

using vpnctl::Value;

Value freshPreferences() {
  const std::string set = vpnctl::newUUID();
  const Value order = Value::Dictionary{{kServiceOrderKey, Value::Array()}};
  const Value network = Value::Dictionary{
      {kGlobalKey, Value::Dictionary{{kSCEntNetIPv4, order}}},
      {kServiceKey, Value::Dictionary()},
  };
  return Value::Dictionary{
      {kCurrentSetKey, std::string("/") + kSetsKey + "/" + set},
      {kNetworkServicesKey, Value::Dictionary()},
      {kSetsKey,
       Value::Dictionary{{set, Value::Dictionary{{kUserDefinedNameKey, "Automatic"}, {kNetworkKey, network}}}}},
  };
}

Value defaultPPP(const std::string &tunnelType) {
  Value ppp = Value::Dictionary{
      {"ACSPEnabled", 1},
      {"CommDisplayTerminalWindow", 0},
      {"CommRedialCount", 1},
      {"CommRedialEnabled", 0},
      {"CommRedialInterval", 5},
      {"CommUseTerminalScript", 0},
      {"DialOnDemand", 0},
      {"DisconnectOnFastUserSwitch", 1},
      {"DisconnectOnIdle", 0},
      {"DisconnectOnIdleTimer", 600},
      {"DisconnectOnLogout", 1},
      {"DisconnectOnSleep", 0},
      {"IPCPCompressionVJ", 0},
      {"IdleReminder", 0},
      {"IdleReminderTimer", 1800},
      {"LCPEchoEnabled", 1},
      {"LCPEchoFailure", 15},
      {"LCPEchoInterval", 20},
      {"Logfile", "/var/log/ppp.log"},
      {"VerboseLogging", 0},
  };
  if (tunnelType == kSCNetworkInterfaceTypePPTP) ppp.set("CCPEnabled", 1);
  return ppp;
}

Value defaultProtocols() {
  return Value::Dictionary{
      {"DNS", Value::Dictionary()},
      {"IPv4", Value::Dictionary{{"ConfigMethod", "PPP"}}},
      {"IPv6", Value::Dictionary{{"ConfigMethod", "Automatic"}}},
      {"Proxies", Value::Dictionary{{"FTPPassive", 1}}},
  };
}

}  // namespace platform
