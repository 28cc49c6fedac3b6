#include "helper/link/LinkConfiguration.h"

#include <utility>

namespace helper {

using foundation::Value;

foundation::Result<LinkConfiguration> LinkConfiguration::fromPreferences(const Value &root,
                                                                         const std::string &serviceID) {
  const Value *service = root["NetworkServices"].find(serviceID);
  if (service == nullptr) return foundation::Error{"Link", 0, "there is no network service " + serviceID};
  const Value &interface = (*service)["Interface"];
  if (interface["Type"].string() != "PPP" || !interface["SubType"].isString())
    return foundation::Error{"Link", 0, "the network service " + serviceID + " is no PPP service"};
  LinkConfiguration configuration;
  configuration.serviceID = serviceID;
  configuration.tunnelType = interface["SubType"].string();
  configuration.ppp = (*service)["PPP"];
  configuration.ipv4 = (*service)["IPv4"];
  configuration.ipsec = (*service)["IPSec"];
  return configuration;
}

void LinkConfiguration::applySettings(EngineSettings machine) {
  settings = std::move(machine);
  if (settings.ppp.mtu) ppp.set("LCPMTU", *settings.ppp.mtu);
  if (settings.ppp.mru) ppp.set("LCPMRU", *settings.ppp.mru);
  if (settings.ppp.echoInterval) ppp.set("LCPEchoInterval", *settings.ppp.echoInterval);
  if (settings.ppp.echoFailures) ppp.set("LCPEchoFailure", *settings.ppp.echoFailures);
  if (!settings.ppp.authProtocols.empty()) {
    Value::Array protocols(settings.ppp.authProtocols.begin(), settings.ppp.authProtocols.end());
    ppp.set("AuthProtocol", std::move(protocols));
  }
  if (settings.ppp.dns) ppp.set("IPCPUsePeerDNS", *settings.ppp.dns ? 1 : 0);
  if (settings.ppp.defaultRoute) ipv4.set("OverridePrimary", *settings.ppp.defaultRoute ? 1 : 0);
  if (tunnelType != "PPTP") return;
  switch (settings.pptp.mppe) {
    case EngineSettings::MPPE::service:
      break;
    case EngineSettings::MPPE::require128:
      ppp.set("CCPEnabled", 1);
      ppp.set("CCPMPPE40Enabled", 0);
      ppp.set("CCPMPPE128Enabled", 1);
      break;
    case EngineSettings::MPPE::none:
      ppp.set("CCPEnabled", 0);
      break;
  }
}

bool LinkConfiguration::isInClear() const {
  return tunnelType == "PPTP" && settings.pptp.mppe == EngineSettings::MPPE::none;
}

}  // namespace helper
